#ifndef VELD_PAGES_PAGESTATE_H
#define VELD_PAGES_PAGESTATE_H

#include <QByteArray>
#include <QList>
#include <QString>

class QSpacerItem;

/**
 * One data file found by a source scan: its absolute path as the file system
 * spells it (bytes, never decoded, so that any name reaches the copy program
 * as it is; it may be longer than PATH_MAX) and its size in bytes.
 */
struct SourceFile {
    QByteArray path;
    quint64 size = 0;

    /** The name after the last "/". */
    QByteArray fileName() const { return path.mid(path.lastIndexOf('/') + 1); }
    /** The path as shown to a person: UTF-8, with a replacement character for bytes that are not. */
    QString displayPath() const { return QString::fromUtf8(path); }
};

/**
 * The data files found by the source scans, in the order found: each finished
 * scan appends its files as one block; nothing is ever removed. Written only on
 * the user-interface thread (see SizeThread), so a worker that reads it takes
 * its own copy there before it starts.
 */
extern QList<SourceFile> sResultList;

/**
 * The data files of the source the user sees: the block of sResultList that
 * the scan behind the source page's latest result added (dbSize is their
 * total). The decision between moving and copying and the transfer work on
 * these alone, whatever else sResultList holds. Empty until a result is shown.
 */
extern QList<SourceFile> sSourceFiles;

/**
 * The folders below the source the user sees that its scan could not read
 * (absolute paths, as bytes): their data files are not in sSourceFiles, and
 * the installation's outcome says so.
 */
extern QList<QByteArray> sUnreadableFolders;

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
