#ifndef VELD_PAGES_PAGESTATE_H
#define VELD_PAGES_PAGESTATE_H

#include <QFileInfo>
#include <QList>

class QSpacerItem;

/**
 * The data files found by the source scans, in the order found: each finished
 * scan appends its files as one block; nothing is ever removed. Written only on
 * the user-interface thread (see SizeThread), so a worker that reads it takes
 * its own copy there before it starts.
 */
extern QList<QFileInfo> sResultList;

/**
 * The data files of the source the user sees: the block of sResultList that
 * the scan behind the source page's latest result added (dbSize is their
 * total). The decision between moving and copying and the transfer work on
 * these alone, whatever else sResultList holds. Empty until a result is shown.
 */
extern QList<QFileInfo> sSourceFiles;

/** The folder that the scan behind sSourceFiles measured; empty until a result is shown. */
extern QString sSourceFolder;

/**
 * The destination page's decision, made anew at each Continue there: true when
 * the files are to be MOVED (source and destination on the same volume), false
 * when they are to be copied. The name says the opposite; every reader treats
 * true as move.
 */
extern bool sCopyFiles;

/** The 72-pixel blank that the pages put on each side of a centred button. */
QSpacerItem *sideSpacer();

#endif
