#include "app/veld_installer.h"
#include "pages/pageids.h"
#include "pages/pagestate.h"
#include "platform/locations.h"
#include "platform/prefstore.h"
#include "platform/users.h"
#include "privilegedsupport.h"
#include "testsupport.h"
#include "wizarddriver.h"

#include <QAbstractButton>
#include <QApplication>
#include <QProgressBar>
#include <QRegularExpression>
#include <QtTest>

#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

// The whole installation, end to end: a copy of this program in a bundle
// beside a real source folder runs the real wizard as an ordinary user, from
// the agreement to the outcome, with real files, the real copy programs and
// rights through the real "sudo -n"; then the disk is checked.

const QString kHelper = QStringLiteral(VELD_AUTHHELPER);
const QString kDomain = QStringLiteral("com.halvorn.QuorvanVELD");
const QString kKey = QStringLiteral("VELDFullDatabasePath");

// ---- The wizard's side, in the bundle copy ----

class InstallScenarios : public QObject
{
    Q_OBJECT

private slots:
    void install();
};

// VELD_CHOOSE: the parent folder to pick ("" for the default destination);
// VELD_CANCEL_AFTER: click Cancel once that many files are transferred, while
// the copy program reads the next one, which is then a pipe that never ends.
void InstallScenarios::install()
{
    answerMessageBoxes(false);
    auto owned = std::make_unique<VELD_Installer>();
    VELD_Installer &wizard = *owned;
    install_wizard = &wizard;
    goToDestPage(wizard);
    if (!qEnvironmentVariable("VELD_CHOOSE").isEmpty())
        choose(wizard, qEnvironmentVariable("VELD_CHOOSE"));
    const int cancelAfter = qEnvironmentVariableIntValue("VELD_CANCEL_AFTER");
    const QString gate = sResultList.value(cancelAfter).absoluteFilePath();
    if (cancelAfter > 0) {
        const QByteArray path = QFile::encodeName(gate);
        QVERIFY(::unlink(path.constData()) == 0 && ::mkfifo(path.constData(), 0644) == 0);
        const int pipe = ::open(path.constData(), O_RDWR);   // kept open: the copy never reaches the end
        QVERIFY(pipe >= 0 && ::write(pipe, "partial", 7) == 7);
    }
    QTest::mouseClick(wizard.button(QWizard::NextButton), Qt::LeftButton);
    QVERIFY2(wizard.currentId() == int(kConclusionPageId), qPrintable(wizard.currentPage()->subTitle()));
    QWizardPage *page = wizard.currentPage();
    QStringList order;
    for (const QFileInfo &file : sResultList)
        order << file.fileName();
    printf("files=%d move=%d order=%s\n", int(sResultList.size()), sCopyFiles ? 1 : 0, qPrintable(order.join(',')));
    QVERIFY(!wizard.button(QWizard::BackButton)->isEnabled());
    QVERIFY(!wizard.button(QWizard::FinishButton)->isEnabled());
    auto *bar = page->findChild<QProgressBar *>();

    if (cancelAfter > 0) {
        const QString cut = qEnvironmentVariable("VELD_DEST") + '/' + QFileInfo(gate).fileName();
        QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(cut).size() == 7, 60000);
        QCOMPARE(bar->value(), cancelAfter);
        QVERIFY(!page->isComplete());
        printf("cancelled at=%d\n", bar->value());
        fflush(stdout);
        // As in the installer: the wizard closes, and then the program's end destroys it.
        QTest::mouseClick(wizard.button(QWizard::CancelButton), Qt::LeftButton);
        QVERIFY(!wizard.isVisible());
        owned.reset();
        return;
    }
    QTRY_VERIFY_WITH_TIMEOUT(page->isComplete(), 120000);
    printf("outcome=%s|%s\n", qPrintable(page->title()), qPrintable(QString(page->subTitle()).replace('\n', "\\n")));
    printf("bar hidden=%d back=%d path=%s\n", bar->isHidden() ? 1 : 0, wizard.button(QWizard::BackButton)->isEnabled() ? 1 : 0,
           qPrintable(wizard.field(QStringLiteral("path")).toString()));
    printf("pref=%s\n", MacReadGlobalDefaultSetting(kDomain, kKey).constData());
}

// ---- The test's side ----

class tst_Install : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    CountingLauncher m_launcher;

private slots:
    void initTestCase()
    {
        QVERIFY(m_launcher.create(m_dir.path()));
    }
    void cleanup() { QVERIFY(allGone(helperProcesses(kHelper))); }
    void install_data();
    void install();
};

void tst_Install::install_data()
{
    QTest::addColumn<QString>("user");
    QTest::addColumn<QString>("setup");       // shell commands preparing the wizard's mount namespace ("$1": the layout)
    QTest::addColumn<QString>("place");       // the parent: the user's on "tmp" (the source's disk) or "shm", "root"'s
                                              // on shm, "small" (the layout's folder), "" (the default destination)
    QTest::addColumn<int>("dataFiles");       // of 1000 bytes each
    QTest::addColumn<int>("cancelAfter");     // click Cancel once that many files are transferred, or 0
    QTest::addColumn<QString>("outcome");     // "*" stands for any text
    QTest::addColumn<QString>("arrived");     // "all", "none", "some", "before FILE" (unreadable), "before the cut" in the
                                              // scan's order
    QTest::addColumn<int>("launches");
    QTest::addColumn<bool>("preference");
    QTest::addColumn<QStringList>("folders"); // the parent and the destination afterwards; %A: administrators' group

    const QString installed = "Database Installed|The Quorvan Spectra and Properties Database is now ready for use.";
    const QStringList admin{"veldadmin:veldadmin 755", "veldadmin:veldadmin 755"};
    QTest::newRow("copy to another disk; rights asked for the preference only")
        << "veldadmin" << "" << "shm" << 4 << 0 << installed << "all" << 1 << true << admin;
    QTest::newRow("move on the same disk; one password in all")
        << "veldadmin" << "" << "tmp" << 4 << 0 << installed << "all" << 1 << true << admin;
    QTest::newRow("new folder in root's folder: made with rights, then the copy program's complaint")
        << "veldadmin" << "" << "root" << 4 << 0
        << "Database was not installed|Error message is:\\n/bin/cp: cannot create regular file '@/VELDV400/d*.qventry': "
           "Permission denied\\n"
        << "none" << 1 << false << QStringList{"root:root 755", "root:root 755"};
    QTest::newRow("rights refused after the transfer: installed, no preference")
        << "veldguest" << "" << "shm" << 4 << 0 << installed << "all" << 0 << false
        << QStringList{"veldguest:veldguest 755", "veldguest:veldguest 755"};
    QTest::newRow("a file that cannot be read stops the transfer")
        << "veldadmin" << "" << "shm" << 6 << 0
        << "Database was not installed|Error message is:\\n/bin/cp: cannot open '#/d3.qventry' for reading: Permission "
           "denied\\n"
        << "before d3.qventry" << 0 << false << admin;
    QTest::newRow("no data files") << "veldadmin" << "" << "shm" << 0 << 0 << "Database was not installed|The source "
                                   "database data files couldn't be found." << "none" << 0 << false << admin;
    // The program ends with status 0, no file is cut short, no copy program is left.
    QTest::newRow("cancel during the transfer")
        << "veldadmin" << "" << "shm" << 30 << 20 << "" << "before the cut" << 0 << false << admin;
    // The maker's folder on a disk of its own, made with rights; given to all administrators.
    QTest::newRow("the maker's folder, made with rights")
        << "veldadmin" << "mount -t tmpfs -o mode=0755 tmpfs /usr/local/share" << "" << 3 << 0 << installed
        << "all" << 2 << true << QStringList{"root:%A 775", "veldadmin:%A 775"};
    // 300 files of 1000 bytes fit the free space that df reports, but each takes a page.
    QTest::newRow("the destination's disk fills up during the copy")
        << "veldadmin" << "mount -t tmpfs -o size=1m,mode=1777 tmpfs \"$1/small\"" << "small" << 300 << 0
        << "Database was not installed|Error message is:\\n/bin/cp: *No space left on device\\n" << "some" << 0 << false
        << QStringList{"root:root 1777", "veldadmin:veldadmin 755"};
}

void tst_Install::install()
{
    REQUIRE_PRIVILEGED();
    QFETCH(QString, user);
    QFETCH(QString, setup);
    QFETCH(QString, place);
    QFETCH(int, dataFiles);
    QFETCH(int, cancelAfter);
    QFETCH(QString, outcome);
    QFETCH(QString, arrived);
    QFETCH(int, launches);
    QFETCH(bool, preference);
    QFETCH(QStringList, folders);
    const QString unreadable = cancelAfter > 0 ? QString() : arrived.section(' ', 1);

    QTemporaryDir layout;
    QTemporaryDir destDisk(place == "tmp" ? m_dir.filePath("dest-XXXXXX") : scratchTemplate("tst_install"));
    const QString source = layout.filePath(QStringLiteral("VELDV400"));
    const QString home = layout.filePath(QStringLiteral("home"));
    const QString system = layout.filePath(QStringLiteral("xdg")); // root's system-wide preference folder
    QVERIFY(QFile::setPermissions(layout.path(), QFileDevice::Permissions(0x7755)));
    QVERIFY(QFile::setPermissions(destDisk.path(), QFileDevice::Permissions(0x7755)));
    for (const QString &folder : {source + "/sub0", source + "/sub1", home, system, layout.filePath("small")})
        QVERIFY(QDir().mkpath(folder));
    // Written out, not sparse, so that each copy takes room on the destination.
    QStringList all; // "name:size", sorted
    for (int i = 1; i <= dataFiles; ++i) {
        QFile file(source + QStringLiteral("/sub%1/d%2.qventry").arg(i % 2).arg(i));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(QByteArray(1000, 'x')) == 1000);
        all << QStringLiteral("d%1.qventry:1000").arg(i);
    }
    all.sort();
    QVERIFY(makeFile(source + QStringLiteral("/readme.txt"), 10));
    const QString owner = QStringLiteral("%1:%1").arg(user);
    QCOMPARE(runProcess("chown", {"-R", owner, source, home}).exitCode, 0);
    if (!unreadable.isEmpty())
        QVERIFY(QFile::setPermissions(source + QStringLiteral("/sub1/") + unreadable, QFileDevice::Permissions()));
    const QString parent = place.isEmpty() ? QString::fromUtf8(kMakersFolder)
                           : place == "small" ? layout.filePath(place) : destDisk.filePath("parent");
    if (place != "small" && !place.isEmpty()) {
        QVERIFY(QDir().mkpath(parent));
        QCOMPARE(runProcess("chown", {place == "root" ? "root:root" : owner, parent}).exitCode, 0);
    }
    const QString dest = parent + QStringLiteral("/VELDV400");

    // The wizard runs in a private mount namespace; the destination is then examined there.
    QVERIFY(m_launcher.reset());
    QProcessEnvironment env = m_launcher.environment(kHelper);
    env.insert(QStringLiteral("XDG_CONFIG_DIRS"), system);
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), home);
    env.insert(QStringLiteral("HOME"), home);
    env.remove(QStringLiteral("XDG_RUNTIME_DIR"));
    env.insert(QStringLiteral("VELD_CHOOSE"), place.isEmpty() ? QString() : parent);
    env.insert(QStringLiteral("VELD_CANCEL_AFTER"), QString::number(cancelAfter));
    env.insert(QStringLiteral("VELD_DEST"), dest);
    const QString report = QStringLiteral("stat -c 'folder=%U:%G %a' \"${VELD_DEST%/*}\" \"$VELD_DEST\"; "
                                          "find \"$VELD_DEST\" -maxdepth 1 -type f -printf 'file=%f:%s\\n'");
    QString output;
    runScenario(layout.path(), QStringLiteral("install"), env,
                [&](const QString &program, const QStringList &args) {
                    return inPrivateMounts(setup.isEmpty() ? QStringLiteral("true") : setup, {layout.path()}, "sh",
                                           QStringList{"-c", "\"$@\"; status=$?; " + report + "; exit $status", "sh"}
                                               + asUser(user, program, args));
                },
                &output);
    const QStringList lines = output.split('\n').filter(QRegularExpression("^(?!QWARN)")); // no toolkit warnings
    const QByteArray shown = lines.join('\n').toLocal8Bit();
    const auto value = [&](const QString &key) { return output.section('\n' + key, 1).section('\n', 0, 0); };
    const auto printed = [&](const QString &line) { // "*" stands for any text
        const QString pattern = QRegularExpression::escape(line).replace(QLatin1String("\\*"), QLatin1String(".*"));
        return QRegularExpression('^' + pattern + '$', QRegularExpression::MultilineOption).match(output).hasMatch();
    };

    // The data files, flat and whole; nothing else; the source kept for a copy.
    QStringList files = lines.filter(QRegularExpression("^file=")).replaceInStrings("file=", "");
    files.sort();
    if (cancelAfter > 0) {
        QCOMPARE(value("cancelled at=").toInt(), cancelAfter);
    } else {
        QVERIFY2(printed("outcome=" + outcome.replace('@', parent).replace('#', source + "/sub1")), shown.constData());
        QVERIFY2(printed("bar hidden=1 back=1 path=" + dest), shown.constData());
    }
    QCOMPARE(m_launcher.launches(), launches);
    // No copy program outlives the installer.
    QCOMPARE(runProcess("pgrep", {"-f", source}).out, QString());
    QCOMPARE(lines.filter(QRegularExpression("^folder=")).replaceInStrings("folder=", ""),
             folders.replaceInStrings("%A", QString::fromLatin1(adminGroupName())));
    if (arrived.startsWith("before ")) {
        // Whole files, in the scan's order, up to the one that could not be read or was cut.
        const QStringList order = value("files=").section(QStringLiteral("order="), 1).split(',');
        const int end = cancelAfter > 0 ? cancelAfter : order.indexOf(unreadable);
        QStringList before = order.mid(0, end).replaceInStrings(QRegularExpression("$"), ":1000");
        before.sort();
        QCOMPARE(files, before);
        if (cancelAfter > 0)   // the pipe that stood in for a file is no longer a file of the source
            all.removeOne(order.at(end) + ":1000");
    } else if (arrived == "some") {
        QVERIFY2(files.size() < dataFiles, qPrintable(files.join(' ')));
    } else {
        QCOMPARE(files, arrived == "all" ? all : QStringList());
    }
    const bool moved = output.contains(QLatin1String("move=1"));
    QCOMPARE(moved, place == "tmp");
    QStringList left;
    for (const char *sub : {"/sub0", "/sub1"})
        for (const QFileInfo &file : QDir(source + sub).entryInfoList(QDir::Files | QDir::Hidden))
            left << file.fileName() + ':' + QString::number(file.size());
    left.sort();
    QCOMPARE(left, moved ? QStringList() : all);

    const QString prefFile = system + '/' + kDomain + QStringLiteral(".conf");
    if (preference) {
        QVERIFY2(printed("pref=" + dest), shown.constData());
        QCOMPARE(QSettings(prefFile, QSettings::IniFormat).value(kKey).toString(), dest);
        QCOMPARE(runProcess("stat", {"-c", "%U:%G %a", prefFile}).out, QStringLiteral("root:root 644\n"));
    } else {
        QVERIFY(!QFileInfo::exists(prefFile));
    }
}

VELD_SCENARIO_MAIN(InstallScenarios, tst_Install)

#include "tst_install.moc"
