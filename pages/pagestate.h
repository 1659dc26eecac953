#ifndef VELD_PAGES_PAGESTATE_H
#define VELD_PAGES_PAGESTATE_H

#include <QFileInfo>
#include <QList>

/**
 * The data files found by the source scans, in the order found: each finished
 * scan appends its files as one block; nothing is ever removed. Written only on
 * the user-interface thread (see SizeThread), so a worker that reads it takes
 * its own copy there before it starts.
 */
extern QList<QFileInfo> sResultList;

#endif
