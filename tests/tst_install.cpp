#include "app/veld_installer.h"
#include "pages/pageids.h"
#include "pages/pagestate.h"
#include "platform/installpath.h"
#include "platform/locations.h"
#include "platform/prefstore.h"
#include "platform/users.h"
#include "testsupport.h"

#include <QAbstractButton>
#include <QDirIterator>
#include <QApplication>
#include <QProgressBar>

#include <memory>

// The whole installation: a copy of this program in a bundle beside a real source runs the wizard as an ordinary user,
// with the real copy programs and rights through the real "sudo -n", or through the installer's own launcher, the
// real pkexec asking the real polkitd (throughPkexec()), then examines the disk it saw.

namespace {

// The data files of the source as "name:size", sorted.
QStringList dataFiles(const QString &folder)
{
    QStringList files;
    for (QDirIterator it(folder, {"*.qventry"}, QDir::Files, QDirIterator::Subdirectories); it.hasNext();) {
        const QFileInfo file(it.next());
        files << file.fileName() + ':' + QString::number(file.size());
    }
    files.sort();
    return files;
}

// For pkexec, which passes no environment on: in root's folder/helper, the built helper beside veld-defaults (allowed
// from its own folder alone), copied, run by a script that counts the starts that pkexec allowed in folder/launches.
bool createCountingHelper(const QString &folder)
{
    const QString helper = folder + "/helper", built = QFileInfo(VELD_AUTHHELPER).absolutePath();
    return writeFile(helper + "/veld-authhelper-counted", fileBytes(VELD_AUTHHELPER), 0755)
           && writeFile(helper + "/veld-defaults", fileBytes(built + "/veld-defaults"), 0755)
           && writeFile(helper + "/veld-authhelper",
                        "#!/bin/sh\necho started >> \"${0%/*}/../launches\"\nexec \"${0%/*}/veld-authhelper-counted\"\n", 0755)
           && QFile::setPermissions(helper, QFileDevice::Permissions(0x7755));
}

} // namespace

class tst_Install : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

private slots:
    void cleanup() { QVERIFY(allGone(processesMentioning(VELD_AUTHHELPER) + processesMentioning(m_dir.filePath("helper/")))); }

    void install_data()
    {
        QTest::addColumn<QString>("user");
        QTest::addColumn<QString>("setup");       // shell commands preparing the wizard's mount namespace ("$1": the layout)
        QTest::addColumn<QString>("place");       // the parent: the user's on "tmp" (the source's disk) or "shm", root's on
                                                  // shm ("root"; "shared": writable by veldguest's group), or "" (the default destination)
        QTest::addColumn<int>("files");           // data files of 1000 bytes each
        QTest::addColumn<int>("cancelAfter");     // click Cancel once that many are transferred, or 0
        QTest::addColumn<QString>("outcome");     // the last page's title and text ("*" stands for any text); "": cancelled
        QTest::addColumn<int>("launches");        // the preference is recorded where the database is installed with rights
        QTest::addColumn<QStringList>("folders"); // the parent and the destination afterwards; %A: administrators' group

        const QString installed = "Database Installed|The Quorvan Spectra and Properties Database is now ready for use.";
        const QStringList admin{"veldadmin:veldadmin 755", "veldadmin:veldadmin 755"};
        QTest::newRow("copy to another disk; rights asked for the preference only")
            << "veldadmin" << "" << "shm" << 4 << 0 << installed << 1 << admin;
        QTest::newRow("move on the same disk; one password in all")
            << "veldadmin" << "" << "tmp" << 4 << 0 << installed << 1 << admin;
        QTest::newRow("new folder in root's folder: made with rights, then the copy program's complaint")
            << "veldadmin" << "" << "root" << 4 << 0
            << "Database was not installed|Error message is:\n/bin/cp: cannot create regular file '@/VELDV400/d*.qventry': "
               "Permission denied\n"
            << 1 << QStringList{"root:root 755", "root:root 755"};
        QTest::newRow("a parent that other users can change: refused before rights are asked")
            << "veldadmin" << "" << "shared" << 4 << 0
            << "Database was not installed|VELD Installer will not install into @, a folder that other users can change. Please "
               "select another location." << 0 << QStringList{"root:veldguest 775", "absent"};
        QTest::newRow("rights refused after the transfer: installed, no preference")
            << "veldguest" << "" << "shm" << 4 << 0 << installed << 0
            << QStringList{"veldguest:veldguest 755", "veldguest:veldguest 755"};
        QTest::newRow("no data files") << "veldadmin" << "" << "shm" << 0 << 0 << "Database was not installed|The source "
                                       "database data files couldn't be found." << 0 << admin;
        // The program ends with status 0, no file is cut short, no copy program is left.
        QTest::newRow("cancel during the transfer") << "veldadmin" << "" << "shm" << 30 << 20 << "" << 0 << admin;
        // The maker's folder on a disk of its own, made with rights; given to all administrators.
        QTest::newRow("the maker's folder, made with rights")
            << "veldadmin" << "mount -t tmpfs -o mode=0755 tmpfs /usr/local/share" << "" << 3 << 0 << installed
            << 2 << QStringList{"root:%A 775", "veldadmin:%A 775"};
    }

    void install()
    {
        REQUIRE_PRIVILEGED();
        QFETCH(QString, user);
        QFETCH(QString, setup);
        QFETCH(QString, place);
        QFETCH(int, files);
        QFETCH(int, cancelAfter);
        QFETCH(QString, outcome);
        QFETCH(int, launches);
        const bool installed = outcome.startsWith("Database Installed"), preference = installed && launches > 0;
        QFETCH(QStringList, folders);

        if (!inChild()) {
            // The source: files in two folders, owned by the user, written out so that each takes room.
            // The parent of the destination on /tmp, the source's disk, or on a memory file system.
            QTemporaryDir layout, destDisk(place == "tmp" ? m_dir.filePath("dest-XXXXXX") : "/dev/shm/tst_install-XXXXXX");
            const QString source = layout.filePath("VELDV400"), parent = destDisk.filePath("parent");
            QVERIFY(QDir().mkpath(layout.filePath("home")) && QDir().mkpath(layout.filePath("xdg")) && QDir().mkpath(parent));
            for (int i = 1; i <= files; ++i)
                QVERIFY(writeFile(source + QStringLiteral("/sub%1/d%2.qventry").arg(i % 2).arg(i), QByteArray(1000, 'x')));
            QVERIFY(writeFile(source + "/readme.txt", "not data") && createCountingLauncher(m_dir.path()));
            QCOMPARE(runProcess({"chown", "-R", user + ':' + user, source, layout.filePath("home")}).exitCode, 0);
            QCOMPARE(runProcess({"chown", place == "root" ? "root:root" : place == "shared" ? "root:veldguest" : user + ':' + user, parent})
                         .exitCode, 0);
            QVERIFY(place != "shared" || ::chmod(QFile::encodeName(parent).constData(), 0775) == 0);
            QCOMPARE(runProcess({"chmod", "755", layout.path(), destDisk.path()}).exitCode, 0);
            QProcessEnvironment env = withLauncher(VELD_AUTHHELPER, m_dir.filePath("launch"));
            if (throughPkexec()) {
                QVERIFY(createCountingHelper(m_dir.path()));
                env.insert("SHELL", "/bin/sh");   // pkexec refuses a SHELL that /etc/shells does not list
                env.insert("VELD_AUTH_HELPER", m_dir.filePath("helper/veld-authhelper"));
                env.remove("VELD_AUTH_LAUNCHER");
            }
            for (const char *name : {"XDG_CONFIG_HOME", "HOME"})
                env.insert(name, layout.filePath("home"));
            env.remove("XDG_RUNTIME_DIR");
            env.insert("VELD_PARENT", place.isEmpty() ? QString() : parent);
            // Root's folder "xdg" stands at the system preference folder.
            const QString mounts = (setup.isEmpty() ? "true" : setup) + QStringLiteral(" && mount --bind \"$1/xdg\" %1").arg(kSystemPreferencesFolder);
            runRowInChild({layout.filePath("Test Installer.app/Contents/MacOS/tst_install"), {asUser(user), inPrivateMounts(mounts, {layout.path()})}, env});
            QCOMPARE(::launches(m_dir.path()), launches);
            const QString prefFile = layout.filePath("xdg/") + kPrefDomain + ".conf";
            QCOMPARE(ownership(prefFile), preference ? "root:root 644" : "absent");
            return;
        }

        // The wizard, as the user, in the row's mount namespace.
        const QString source = QDir::cleanPath(QString::fromStdString(GetInstallPath()) + "/../VELDV400");
        const QString parent = qEnvironmentVariable("VELD_PARENT").isEmpty() ? QString::fromUtf8(kMakersFolder)
                                                                             : qEnvironmentVariable("VELD_PARENT");
        const QString dest = parent + "/VELDV400";
        const QStringList all = dataFiles(source);
        answerMessageBoxes(false);
        auto owned = std::make_unique<VELD_Installer>();
        VELD_Installer &wizard = *owned;
        install_wizard = &wizard;
        goToDestPage(wizard);
        if (!place.isEmpty())
            choose(wizard, parent);
        QStringList order, kept = all;   // the scan's order; what stays at the source of a copy
        for (const SourceFile &file : sResultList)
            order << QFile::decodeName(file.fileName()) + ":1000";
        // A cancelled transfer stops while the copy program reads a pipe that never ends in place of a file.
        const QString gate = QFile::decodeName(sResultList.value(cancelAfter).path);
        if (cancelAfter > 0) {
            const QByteArray path = QFile::encodeName(gate);
            QVERIFY(::unlink(path.constData()) == 0 && ::mkfifo(path.constData(), 0644) == 0);
            const int pipe = ::open(path.constData(), O_RDWR);
            QVERIFY(pipe >= 0 && ::write(pipe, "partial", 7) == 7);
            kept.removeOne(order.value(cancelAfter));
        }
        QTest::mouseClick(wizard.button(QWizard::NextButton), Qt::LeftButton);
        QVERIFY2(wizard.currentId() == int(kConclusionPageId), qPrintable(wizard.currentPage()->subTitle()));
        QWizardPage *page = wizard.currentPage();
        QCOMPARE(sCopyFiles, place == "tmp");   // moved on the same disk
        QVERIFY(!wizard.button(QWizard::BackButton)->isEnabled() && !wizard.button(QWizard::FinishButton)->isEnabled());
        auto *bar = page->findChild<QProgressBar *>();
        if (cancelAfter > 0) {
            // The bar's report comes as an event, which may still wait when the pipe's bytes have arrived.
            QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(dest + '/' + QFileInfo(gate).fileName()).size() == 7 && bar->value() == cancelAfter,
                                     60000);
            QVERIFY(!page->isComplete());
            // As in the installer: the wizard closes, and then the program's end destroys it.
            QTest::mouseClick(wizard.button(QWizard::CancelButton), Qt::LeftButton);
            QVERIFY(!wizard.isVisible());
        } else {
            QTRY_VERIFY_WITH_TIMEOUT(page->isComplete(), 120000);
            // As read: a long path in the subtitle carries invisible places to break.
            const QString shown = page->title() + '|' + page->subTitle().remove(QChar(0x200B));
            QVERIFY2(matchesGlob(shown, QString(outcome).replace('@', parent)), qPrintable(shown));
            QVERIFY(bar->isHidden() && wizard.button(QWizard::BackButton)->isEnabled() && wizard.field("path").toString() == dest);
        }
        owned.reset();

        // No copy program outlives the installer; the folders, files and preference left.
        QCOMPARE(processesMentioning(source), QList<pid_t>());
        QCOMPARE((QStringList{ownership(parent), ownership(dest)}),
                 folders.replaceInStrings("%A", QString::fromLatin1(adminGroupName())));
        // Whole files; after a cancel, those before the cut in the scan's order.
        QStringList before = order.mid(0, cancelAfter);
        before.sort();
        QCOMPARE(dataFiles(dest), installed ? all : cancelAfter ? before : QStringList());
        QCOMPARE(dataFiles(source), sCopyFiles ? QStringList() : kept);
        QCOMPARE(MacReadGlobalDefaultSetting(kPrefDomain, kPrefKey), preference ? dest.toUtf8() : QByteArray());
    }

    // A move on the source's disk, the installer killed (SIGKILL) once 3 of 6 files are moved: the next run says so,
    // moves the rest into the same folder and records it. The move program is held by a stand-in that moves 3 files
    // with the real mv, then waits on a pipe that this test holds.
    void interruptedMove()
    {
        REQUIRE_PRIVILEGED();
        if (throughPkexec())
            QSKIP("the launcher plays no part here; tst_install runs this row");
        const QString user = "veldadmin", journal = "/com.halvorn.VELDInstaller.move";
        const QString installed = "Database Installed|The Quorvan Spectra and Properties Database is now ready for use.";
        if (!inChild()) {
            QTemporaryDir layout(m_dir.filePath("move-XXXXXX"));
            const QString source = layout.filePath("VELDV400"), parent = layout.filePath("Disk"), dest = parent + "/VELDV400";
            QStringList all;
            for (int i = 1; i <= 6; ++i) {
                QVERIFY(writeFile(source + QStringLiteral("/sub%1/d%2.qventry").arg(i % 2).arg(i), QByteArray(1000, 'x')));
                all << QStringLiteral("d%1.qventry:1000").arg(i);
            }
            const QString gate = layout.filePath("gate");
            QVERIFY(QDir().mkpath(parent) && QDir().mkpath(layout.filePath("home")) && QDir().mkpath(layout.filePath("xdg"))
                    && createCountingLauncher(m_dir.path()) && ::mkfifo(QFile::encodeName(gate).constData(), 0600) == 0
                    && writeFile(layout.filePath("moved"), "0\n")
                    && writeFile(layout.filePath("mv"), "#!/bin/sh\nd='" + layout.path().toUtf8() + "'; n=$(($(cat \"$d/moved\") + 1))\n"
                                 "if [ $n -gt 3 ]; then : > \"$d/held\"; read x < \"$d/gate\"; exit 1; fi\n"
                                 "echo $n > \"$d/moved\"; exec \"$d/real-mv\" \"$@\"\n", 0755));
            QCOMPARE(runProcess({"chown", "-R", user + ':' + user, layout.path()}).exitCode, 0);
            QCOMPARE(runProcess({"chown", "root:root", layout.filePath("xdg")}).exitCode, 0);   // the system's, root's alone
            QCOMPARE(runProcess({"chmod", "755", m_dir.path(), layout.path()}).exitCode, 0);
            QProcessEnvironment env = withLauncher(VELD_AUTHHELPER, m_dir.filePath("launch"));
            for (const char *name : {"XDG_CONFIG_HOME", "HOME"})
                env.insert(name, layout.filePath("home"));
            env.insert("VELD_PARENT", parent);
            const QString program = layout.filePath("Test Installer.app/Contents/MacOS/tst_install");
            const QString xdg = QStringLiteral("mount --bind \"$1/xdg\" %1").arg(kSystemPreferencesFolder);

            // The first run, held in its fourth move, then killed.
            env.insert("VELD_PHASE", "killed");
            const QStringList first = childRowCommand({program, {asUser(user), inPrivateMounts(
                "cp /bin/mv \"$1/real-mv\" && mount --bind \"$1/mv\" \"$(readlink -f /bin/mv)\" && " + xdg, {layout.path()})}, env}, &env);
            QProcess installer;
            // Should a step fail, the stand-in is let go too, unless it has not reached the pipe yet.
            const auto letGo = qScopeGuard([&] { ::close(::open(QFile::encodeName(gate).constData(), O_WRONLY | O_NONBLOCK)); });
            installer.setProcessEnvironment(env);
            installer.start(first.first(), first.mid(1));
            QVERIFY(installer.waitForStarted(60000));
            QTRY_VERIFY_WITH_TIMEOUT(QFileInfo::exists(layout.filePath("held")) || installer.state() == QProcess::NotRunning, 120000);
            if (installer.state() != QProcess::Running)
                fprintf(stderr, "%s%s\n", installer.readAllStandardOutput().constData(), installer.readAllStandardError().constData());
            QVERIFY(installer.state() == QProcess::Running);
            QVERIFY(QFileInfo::exists(layout.filePath("home") + journal));
            QCOMPARE(::kill(pid_t(installer.processId()), SIGKILL), 0);
            QVERIFY(installer.waitForFinished(60000) && installer.exitStatus() == QProcess::CrashExit);
            ::close(::open(QFile::encodeName(gate).constData(), O_WRONLY));   // the stand-in ends, moving nothing
            QCOMPARE(dataFiles(dest).size() + dataFiles(source).size(), 6);
            QCOMPARE(dataFiles(dest).size(), 3);

            // The second run completes the move.
            env.insert("VELD_PHASE", "again");
            runRowInChild({program, {asUser(user), inPrivateMounts(xdg, {layout.path()})}, env});
            QCOMPARE(dataFiles(dest), all);
            QCOMPARE(dataFiles(source), QStringList());
            QVERIFY(!QFileInfo::exists(parent + "/VELDV400_0") && !QFileInfo::exists(layout.filePath("home") + journal));
            QCOMPARE(::launches(m_dir.path()), 1);
            const QString pref = fileText(layout.filePath("xdg/") + kPrefDomain + ".conf");
            QVERIFY2(pref.contains(kPrefKey + "=" + dest + "\n"), qPrintable(pref));
            return;
        }

        const QString source = QDir::cleanPath(QString::fromStdString(GetInstallPath()) + "/../VELDV400");
        const QString parent = qEnvironmentVariable("VELD_PARENT"), dest = parent + "/VELDV400";
        answerMessageBoxes(false);
        VELD_Installer wizard;
        install_wizard = &wizard;
        if (qEnvironmentVariable("VELD_PHASE") == "killed") {
            goToDestPage(wizard);
            choose(wizard, parent);
            QTest::mouseClick(wizard.button(QWizard::NextButton), Qt::LeftButton);
            QVERIFY(sCopyFiles);
            QTRY_VERIFY_WITH_TIMEOUT(wizard.currentPage()->isComplete(), 120000);
            QFAIL("the move was not held");
        }
        wizard.show();
        QCOMPARE(wizard.currentId(), int(kConclusionPageId));
        QWizardPage *page = wizard.currentPage();
        QTRY_VERIFY_WITH_TIMEOUT(page->isComplete(), 120000);
        QCOMPARE(page->title() + '|' + page->subTitle(), installed);
        QCOMPARE(answeredMessageBoxes.value(0).section('|', 1, 1).remove(QChar(0x200B)),
                 "An earlier installation was interrupted while it moved the database files from\n\n" + source + "\n\nto\n\n" + dest
                     + "\n\nVELD Installer will now move the remaining files to the same folder and complete the installation.");
        QCOMPARE(answeredMessageBoxes.size(), 2);   // and the rights for the preference
    }
};

QTEST_MAIN(tst_Install)
#include "tst_install.moc"
