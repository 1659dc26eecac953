#include "testsupport.h"

#include "platform/locations.h"

#include "pages/pageids.h"
#include "workers/sizethread.h"

#include <QApplication>
#include <QCheckBox>
#include <QFileDialog>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QWizard>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <grp.h>
#include <mutex>
#include <pwd.h>

ProcessResult runProcess(const QStringList &command, const QProcessEnvironment &env)
{
    QProcess process;
    process.setProcessEnvironment(env);
    process.start(command.value(0), command.mid(1));
    ProcessResult result;
    if (!process.waitForStarted(60000) || !process.waitForFinished(240000)) {
        process.kill();
        process.waitForFinished(5000);
        return result;
    }
    result.out = QString::fromUtf8(process.readAllStandardOutput());
    result.err = QString::fromUtf8(process.readAllStandardError());
    if (process.exitStatus() == QProcess::NormalExit)
        result.exitCode = process.exitCode();
    return result;
}

Wrap asUser(const QString &user)
{
    return [user](const QStringList &command) {
        return QStringList{"setpriv", "--reuid=" + user, "--regid=" + user, "--init-groups"} + command;
    };
}

Wrap asOrdinaryUser()
{
    return [](const QStringList &command) {
        return ::geteuid() != 0 ? command : QStringList{"setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups"} + command;
    };
}

Wrap inPrivateMounts(const QString &setup, const QStringList &setupArgs)
{
    return [setup, setupArgs](const QStringList &command) {
        QStringList line{QStandardPaths::findExecutable("unshare"), "--mount"};
        if (::geteuid() != 0)
            line << "--map-root-user";
        return line + QStringList{"sh", "-c", setup + QStringLiteral(" && shift %1 && exec \"$@\"").arg(setupArgs.size()), "sh"}
               + setupArgs + command;
    };
}

Wrap atMakersFolder(const QString &folder)
{
    return inPrivateMounts("mount -t tmpfs tmpfs \"${2%/*}\" && mkdir \"$2\" && mount --bind \"$1\" \"$2\"", {folder, kMakersFolder});
}

Wrap atSystemPreferences(const QString &folder)
{
    return inPrivateMounts("mount --bind \"$1\" \"$2\"", {folder, kSystemPreferencesFolder});
}

QStringList wrapped(QStringList command, const QList<Wrap> &wraps)
{
    for (const Wrap &wrap : wraps)
        command = wrap(command);
    return command;
}

QStringList childRowCommand(const ChildRow &row, QProcessEnvironment *env)
{
    QString program = QCoreApplication::applicationFilePath();
    if (!row.copyTo.isEmpty()) {
        if (!writeFile(row.copyTo, fileBytes(program), 0755))
            return QStringList();
        program = row.copyTo;
    }
    const QString function = QString::fromLatin1(QTest::currentTestFunction());
    const QString tag = QString::fromUtf8(QTest::currentDataTag());
    *env = row.env;
    env->insert("VELD_TEST_CHILD", "1");
    return wrapped({program, tag.isEmpty() ? function : function + ':' + tag}, row.wraps);
}

void runRowInChild(const ChildRow &row)
{
    QProcessEnvironment env;
    const QStringList command = childRowCommand(row, &env);
    if (command.isEmpty())
        return QTest::qFail("cannot copy the test program", __FILE__, __LINE__);
    const QString function = QString::fromLatin1(QTest::currentTestFunction());
    const QString tag = QString::fromUtf8(QTest::currentDataTag());
    const ProcessResult child = runProcess(command, env);
    const QString passed = QStringLiteral("PASS   : %1::%2(%3)").arg(QTest::testObject()->metaObject()->className(), function, tag);
    if (child.exitCode != 0 || !child.out.contains(passed)) {
        // The test library cuts long messages; the child's whole report (a sanitizer's, say) goes to standard error.
        fprintf(stderr, "%s%s\n", child.out.toLocal8Bit().constData(), child.err.toLocal8Bit().constData());
        QTest::qFail(qPrintable("the row failed in its child process: " + command.join(' ')), __FILE__, __LINE__);
    }
}

QByteArray fileBytes(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeFile(const QString &path, const QByteArray &bytes, int mode)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size() && file.flush()
           && ::chmod(QFile::encodeName(path).constData(), mode_t(mode)) == 0;
}

bool makeFile(const QString &path, qint64 size)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.resize(size);
}

QStringList paths(const QList<SourceFile> &list)
{
    QStringList out;
    std::transform(list.begin(), list.end(), std::back_inserter(out), [](const SourceFile &file) { return QFile::decodeName(file.path); });
    return out;
}

bool buildTree(const QString &root, const QStringList &entries)
{
    for (const QString &line : entries) {
        const QStringList part = line.split(QLatin1Char('|'));
        const QString path = root + QLatin1Char('/') + part.value(1);
        const QByteArray native = QFile::encodeName(path);
        const char kind = part.value(0).at(0).toLatin1();
        const bool ok = QDir().mkpath(QFileInfo(path).absolutePath())
            && (kind == 'f'   ? makeFile(path, part.value(2).toLongLong())
                : kind == 'd' ? QDir().mkpath(path)
                : kind == 'l' ? ::symlink(QFile::encodeName(part.value(2)).constData(), native.constData()) == 0
                : kind == 'm' ? ::chmod(native.constData(), mode_t(part.value(2).toUInt(nullptr, 8))) == 0
                              : ::mknod(native.constData(), (kind == 'p' ? S_IFIFO : S_IFSOCK) | 0644, 0) == 0);
        if (!ok)
            return false;
    }
    return true;
}

QString ownership(const QString &path)
{
    struct stat status;
    if (::stat(QFile::encodeName(path).constData(), &status) != 0)
        return QStringLiteral("absent");
    const passwd *owner = ::getpwuid(status.st_uid);
    const group *group = ::getgrgid(status.st_gid);
    return QStringLiteral("%1:%2 %3")
        .arg(owner ? QString::fromLocal8Bit(owner->pw_name) : QString::number(status.st_uid),
             group ? QString::fromLocal8Bit(group->gr_name) : QString::number(status.st_gid))
        .arg(status.st_mode & 07777, 0, 8);
}

QByteArray standardErrorOf(const std::function<void()> &work)
{
    fflush(stderr);
    FILE *capture = tmpfile();
    const int saved = ::dup(STDERR_FILENO);
    ::dup2(fileno(capture), STDERR_FILENO);
    work();
    fflush(stderr);
    ::dup2(saved, STDERR_FILENO);
    ::close(saved);
    QByteArray written(int(::lseek(fileno(capture), 0, SEEK_END)), '\0');
    const bool read = ::pread(fileno(capture), written.data(), size_t(written.size()), 0) == written.size();
    fclose(capture);
    return read ? written : QByteArray("(standard error could not be read)");
}

bool matchesGlob(const QString &text, const QString &pattern)
{
    const QString expression = QRegularExpression::escape(pattern).replace("\\*", ".*");
    return QRegularExpression(QRegularExpression::anchoredPattern(expression), QRegularExpression::DotMatchesEverythingOption)
        .match(text).hasMatch();
}

const QString kLogDateStampPattern = QStringLiteral(
    "(Sun|Mon|Tue|Wed|Thu|Fri|Sat) (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ 123]\\d \\d\\d:\\d\\d:\\d\\d \\d{4}");

QStringList logMessages(const QString &path)
{
    static const QRegularExpression prefix("^(\\[[^ \\]]* -?\\d+\\])?" + kLogDateStampPattern + ": ");
    QStringList lines = fileText(path).split(QLatin1Char('\n'));
    if (lines.last().isEmpty())
        lines.removeLast();
    for (QString &line : lines)
        line.remove(prefix);
    return lines;
}

void ruleRows(const QList<QStringList> &rows)
{
    QTest::addColumn<QString>("rule");
    QTest::addColumn<QString>("input");
    QTest::addColumn<QString>("expected");
    for (const QStringList &row : rows)
        QTest::addRow("%s: %s", qPrintable(row[0]), qPrintable(row[1])) << row[0] << row[2] << row[3];
}

QList<pid_t> processesMentioning(const QString &text)
{
    QList<pid_t> found;
    for (const QString &entry : QDir("/proc").entryList(QDir::Dirs)) {
        const pid_t pid = pid_t(entry.toInt());
        const QList<QByteArray> args = fileBytes("/proc/" + entry + "/cmdline").split('\0');
        if (pid > 0 && pid != ::getpid()
            && std::any_of(args.begin(), args.end(), [&](const QByteArray &arg) { return arg.contains(QFile::encodeName(text)); }))
            found << pid;
    }
    return found;
}

bool allGone(const QList<pid_t> &pids)
{
    for (int waited = 0; waited < 30000; waited += 20) {
        if (std::none_of(pids.begin(), pids.end(), [](pid_t pid) { return QFileInfo::exists(QStringLiteral("/proc/%1").arg(pid)); }))
            return true;
        QThread::msleep(20);
    }
    return false;
}

uid_t userId(const QString &name)
{
    const passwd *entry = ::getpwnam(name.toLocal8Bit().constData());
    return entry ? entry->pw_uid : uid_t(-1);
}

QString privilegedMissing()
{
    if (::geteuid() != 0 || userId("veldadmin") == uid_t(-1) || userId("veldguest") == uid_t(-1)
        || !QFileInfo::exists(QStringLiteral("/etc/sudoers.d/veld-authhelper")))
        return QStringLiteral("run as root after scripts/privileged-users.sh");
    // pkexec's subject is its parent, here a shell of veldadmin's, as the installer will be; asked once.
    static const QString pkexec = "SHELL=/bin/sh /usr/bin/pkexec --disable-internal-agent /bin/true; exit $?";
    static const bool polkit = !throughPkexec() || runProcess(asUser("veldadmin")({"/bin/sh", "-c", pkexec})).exitCode == 0;
    return polkit ? QString() : QStringLiteral("polkit must let veldadmin run programs through pkexec: run scripts/polkit.sh start");
}

bool createCountingLauncher(const QString &folder)
{
    return QFile::setPermissions(folder, QFileDevice::Permissions(0x7755)) && writeFile(folder + "/launches", QByteArray(), 0666)
           && writeFile(folder + "/launch", "#!/bin/sh\necho started >> \"${0%/*}/launches\"\nexec sudo -n \"$@\"\n", 0755);
}

QProcessEnvironment withLauncher(const QString &helper, const QString &launcher, QProcessEnvironment env)
{
    env.insert("VELD_AUTH_HELPER", helper);
    env.insert("VELD_AUTH_LAUNCHER", launcher);
    return env;
}

QProcessEnvironment scratchPreferences(const QString &folder)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("XDG_CONFIG_HOME", folder + "/home/.config");
    QDir().mkpath(folder + "/home/.config");
    QDir().mkpath(folder + "/etc/xdg");
    return env;
}

void writePreferences(const QString &folder, const QString &domain, const QStringList &lines)
{
    if (!writeFile(folder + '/' + domain + ".conf", "[General]\n" + lines.join('\n').toUtf8() + '\n'))
        qFatal("cannot write the preferences of %s", qPrintable(domain));
}

namespace {

std::mutex sGateMutex;
std::condition_variable sGateChanged;
enum class GateState { Open, Closed, Holding } sGate = GateState::Open;
int sFoldersAfterCancel = 0;

void gateHook(const QByteArray &, const std::atomic<bool> &cancelled)
{
    std::unique_lock<std::mutex> lock(sGateMutex);
    if (cancelled.load()) {
        ++sFoldersAfterCancel;
        return;
    }
    // Each scan has a thread of its own: it is held at its second folder, once its first is listed.
    thread_local int folders = 0;
    if (++folders != 2 || sGate != GateState::Closed)
        return;
    sGate = GateState::Holding;
    sGateChanged.notify_all();
    // A cancellation does not notify this gate, so the flag is looked at now and then.
    while (sGate == GateState::Holding && !cancelled.load())
        sGateChanged.wait_for(lock, std::chrono::milliseconds(1));
    sGate = GateState::Open;
}

} // namespace

void ScanGate::close()
{
    SizeThread::setFolderHook(gateHook);
    std::lock_guard<std::mutex> lock(sGateMutex);
    sGate = GateState::Closed;
    sFoldersAfterCancel = 0;
}

bool ScanGate::waitUntilHeld()
{
    std::unique_lock<std::mutex> lock(sGateMutex);
    return sGateChanged.wait_for(lock, std::chrono::seconds(60), [] { return sGate == GateState::Holding; });
}

void ScanGate::release()
{
    std::lock_guard<std::mutex> lock(sGateMutex);
    sGate = GateState::Open;
    sGateChanged.notify_all();
}

int ScanGate::foldersAfterCancel()
{
    std::lock_guard<std::mutex> lock(sGateMutex);
    return sFoldersAfterCancel;
}

void clickAcceptBox(QWizard &wizard)
{
    QCheckBox *box = wizard.page(kEulaPageId)->findChild<QCheckBox *>();
    QTest::mouseClick(box, Qt::LeftButton, Qt::NoModifier, QPoint(6, box->height() / 2));
}

void goToSourcePage(QWizard &wizard)
{
    wizard.show();
    clickAcceptBox(wizard);
    QTest::mouseClick(wizard.button(QWizard::NextButton), Qt::LeftButton);
}

void goToDestPage(QWizard &wizard)
{
    goToSourcePage(wizard);
    QVERIFY(SizeThread::waitForScans());
    QTest::mouseClick(wizard.button(QWizard::NextButton), Qt::LeftButton);
    QCOMPARE(wizard.currentId(), int(kPickDestPageId));
}

void choose(QWizard &wizard, const QString &folder)
{
    answerFolderDialog(folder);
    QTest::mouseClick(wizard.page(kPickDestPageId)->findChild<QPushButton *>(), Qt::LeftButton);
    QCOMPARE(folderDialogSeen, "Select Database destination|" + QString::fromLocal8Bit(qgetenv("HOME")) + "|dirs only");
}

void answerMessageBoxes(bool escape)
{
    auto *timer = new QTimer(qApp);
    QObject::connect(timer, &QTimer::timeout, [escape] {
        auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
        if (!box || box->property("answered").toBool())
            return;
        box->setProperty("answered", true);
        QAbstractButton *chosen = box->defaultButton();
        QStringList buttons;
        for (QAbstractButton *button : box->buttons())
            buttons << (button == chosen ? QStringLiteral("*") : QString()) + button->text().remove('&');
        const QSize icon = box->iconPixmap().size();
        answeredMessageBoxes << QStringList{box->windowTitle(), box->text(), box->informativeText(), buttons.join(','),
                                              QStringLiteral("%1x%2").arg(icon.width()).arg(icon.height())}
                                      .join('|');
        answeredMessageBoxLayouts << QString::number(box->width()) + '|' + box->detailedText();
        if (escape)
            QTest::keyClick(box, Qt::Key_Escape);
        else
            QTest::mouseClick(chosen ? chosen : box->buttons().value(0), Qt::LeftButton);
    });
    timer->start(20);
}

QStringList answeredMessageBoxes;
QStringList answeredMessageBoxLayouts;
QString folderDialogSeen;

void answerFolderDialog(const QString &folder)
{
    folderDialogSeen.clear();
    auto *poll = new QTimer;
    QObject::connect(poll, &QTimer::timeout, [poll, folder] {
        auto *dialog = qobject_cast<QFileDialog *>(QApplication::activeModalWidget());
        if (!dialog)
            return;
        folderDialogSeen = QStringList{dialog->windowTitle(), dialog->directory().absolutePath(),
                                       dialog->testOption(QFileDialog::ShowDirsOnly) ? "dirs only" : "files too"}.join('|');
        if (folder.isEmpty()) {
            dialog->reject();
        } else {
            auto *name = dialog->findChild<QLineEdit *>(QStringLiteral("fileNameEdit"));
            name->setText(folder);
            QTest::keyClick(name, Qt::Key_Return);
        }
        poll->deleteLater();
    });
    poll->start(10);
}
