#ifndef VELD_WORKERS_MOVEJOURNAL_H
#define VELD_WORKERS_MOVEJOURNAL_H

#include <QByteArray>
#include <QString>

/*
 * The record of a move in progress: its source folder and destination folder,
 * in a file of the installer's in the user's own preference folder
 * ("com.halvorn.VELDInstaller.move"). It is written before the first file is
 * moved and removed once the installation's outcome is known, so an installer
 * that is killed meanwhile leaves it behind for the next run to complete.
 *
 * The installer that wrote a record, or took one over, holds a lock on the
 * file for as long as it runs (the system drops the lock when the process
 * ends, however it ends): a second installer sees the record as busy. The
 * file is the user's own: nothing it says is used with administrator rights
 * without being checked on the disk first (see ConclusionPage).
 *
 * User-interface thread only; one record per process.
 */

/** The paths of a move, as bytes. */
struct MoveRecord {
    QByteArray source;
    QByteArray destination;
};

enum class JournalState {
    None,         // no record (or one that cannot be read: it is left alone)
    Malformed,    // a file that is not a record; it was removed
    Busy,         // another installer holds the record
    Interrupted,  // the record of a move that another run left unfinished
    Recorded,     // this process holds the record
    Failed,       // the record could not be written
};

/** The journal file's path. */
QString moveJournalPath();

/**
 * Looks for a record left by an earlier run. Interrupted: *record filled, and
 * this process now holds the record (Recorded from then on). Otherwise None,
 * Malformed or Busy, and this process holds nothing.
 */
JournalState takeInterruptedMove(MoveRecord *record);

/**
 * Writes record before the first file is moved, and holds it. Recorded when
 * written, or when this process holds a record already (the one it took over);
 * Busy or Interrupted when the file holds another installer's record, which is
 * left as it is; Failed when it could not be written.
 */
JournalState recordMove(const MoveRecord &record);

/** The move is complete, or there is nothing to complete: removes the record this process holds. */
void forgetMove();

/** Lets go of the record this process holds, leaving it for a later run. */
void releaseMove();

#endif
