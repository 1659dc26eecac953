#include "cdfprocess.h"

#include <QStringList>

namespace {

const int kWaitMs = 50000;

} // namespace

qint64 availableMebibytes(const QByteArray &report)
{
    const QList<QByteArray> lines = report.split('\n');
    if (lines.size() < 2)
        return 0;
    QByteArray line = lines.at(1);
    const int nul = line.indexOf('\0');
    if (nul >= 0)
        line.truncate(nul);
    const QStringList fields = QString::fromUtf8(line).split(QLatin1Char(' '), Qt::SkipEmptyParts);
    if (fields.size() < 4)
        return 0;
    bool ok = false;
    const qint64 kibibytes = fields.at(3).toLongLong(&ok, 10);
    return ok ? kibibytes / 1024 : 0;
}

CDfProcess::CDfProcess(QObject *parent)
    : QProcess(parent)
{
}

void CDfProcess::Run(const QString &path)
{
    start(QStringLiteral("df"), {QStringLiteral("-k"), path}, QIODevice::ReadWrite);
}

qint64 CDfProcess::TotalAvailable()
{
    if (!waitForFinished(kWaitMs)) {
        if (state() != QProcess::NotRunning) {
            kill();
            waitForFinished();   // reaped here, not left to the destructor
        }
        return 0;
    }
    return availableMebibytes(readAllStandardOutput());
}
