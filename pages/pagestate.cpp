#include "pagestate.h"

#include <QSpacerItem>

QList<SourceFile> sResultList;
QList<SourceFile> sSourceFiles;
QList<QByteArray> sUnreadableFolders;
QString sSourceFolder;
bool sCopyFiles = false;

QSpacerItem *sideSpacer()
{
    return new QSpacerItem(72, 0, QSizePolicy::Minimum, QSizePolicy::Minimum);
}
