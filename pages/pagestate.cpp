#include "pagestate.h"

QList<QFileInfo> sResultList;
