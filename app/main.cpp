#include "veld_installer.h"

#include <QApplication>

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    VELD_Installer wizard;
    install_wizard = &wizard;
    wizard.show();
    return app.exec();
}
