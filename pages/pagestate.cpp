#include "pagestate.h"

#include <QSpacerItem>

QList<QFileInfo> sResultList;
QList<QFileInfo> sSourceFiles;
QString sSourceFolder;
bool sCopyFiles = false;

QSpacerItem *sideSpacer()
{
    return new QSpacerItem(72, 0, QSizePolicy::Minimum, QSizePolicy::Minimum);
}
