#ifndef VELD_WORKERS_CDFPROCESS_H
#define VELD_WORKERS_CDFPROCESS_H

#include <QByteArray>
#include <QProcess>
#include <QString>

/**
 * The free space in whole mebibytes that a "df -k" report gives: the fourth
 * blank-separated field of its second line, in 1024-byte blocks, divided by
 * 1024 (rounding toward zero). 0 when the report has no second line, that line
 * fewer than four fields, or the fourth field is not a number.
 */
qint64 availableMebibytes(const QByteArray &report);

/**
 * Measures the free space of the disk that holds a folder with the system's
 * df, on the calling thread. One object serves one measurement: construct,
 * Run, TotalAvailable.
 */
class CDfProcess : public QProcess
{
    Q_OBJECT

public:
    explicit CDfProcess(QObject *parent);

    /** Starts "df -k path", df being found through PATH; returns at once. */
    void Run(const QString &path);

    /**
     * Waits for df (at most 50 s, then kills it) and returns the free space in
     * whole mebibytes; 0 on every failure, which callers read as no space.
     */
    qint64 TotalAvailable();
};

#endif
