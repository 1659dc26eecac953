#include "app/veld_installer.h"
#include "pages/pageids.h"
#include "pages/pagestate.h"
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

#include <grp.h>
#include <memory>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

// The whole installation, end to end: a copy of this program in a bundle
// beside a real source folder runs the real wizard as an ordinary user, from
// the agreement to the outcome, with real files, the real copy programs and
// rights through the real "sudo -n"; this side then checks the disk.

namespace {

const QString kHelper = QStringLiteral(VELD_AUTHHELPER);
const QString kDomain = QStringLiteral("com.halvorn.QuorvanVELD");
const QString kKey = QStringLiteral("VELDFullDatabasePath");
const QString kReady = QStringLiteral("The Quorvan Spectra and Properties Database is now ready for use.");

// What the wizard printed, without the toolkit's warnings.
QByteArray printed(const QString &output)
{
    QStringList lines = output.split('\n');
    lines.erase(std::remove_if(lines.begin(), lines.end(), [](const QString &line) { return line.startsWith("QWARN"); }),
                lines.end());
    return lines.join('\n').toLocal8Bit();
}

QString describeFolder(const QString &path)
{
    struct stat status;
    if (stat(QFile::encodeName(path).constData(), &status) != 0)
        return QStringLiteral("absent");
    const passwd *owner = getpwuid(status.st_uid);
    const group *grp = getgrgid(status.st_gid);
    return QStringLiteral("%1:%2 %3")
        .arg(QString::fromLatin1(owner ? owner->pw_name : "?"), QString::fromLatin1(grp ? grp->gr_name : "?"))
        .arg(status.st_mode & 07777, 4, 8, QLatin1Char('0'));
}

// "name:size" of each file in folder, sorted.
QStringList filesIn(const QString &folder)
{
    QStringList files;
    for (const QFileInfo &file : QDir(folder).entryInfoList(QDir::Files | QDir::Hidden, QDir::Name))
        files << QStringLiteral("%1:%2").arg(file.fileName()).arg(file.size());
    return files;
}

} // namespace

// ---- The wizard's side, in the bundle copy ----

class InstallScenarios : public QObject
{
    Q_OBJECT

private slots:
    void install();
};

// VELD_CHOOSE: the parent folder to pick ("" for the default destination);
// VELD_CANCEL_AFTER: click Cancel once that many files are transferred.
void InstallScenarios::install()
{
    answerMessageBoxes(false);
    auto owned = std::make_unique<VELD_Installer>();
    VELD_Installer &wizard = *owned;
    install_wizard = &wizard;
    goToDestPage(wizard);
    const QString chosen = qEnvironmentVariable("VELD_CHOOSE");
    if (!chosen.isEmpty())
        choose(wizard, chosen);
    QTest::mouseClick(wizard.button(QWizard::NextButton), Qt::LeftButton);
    QVERIFY2(wizard.currentId() == int(kConclusionPageId), qPrintable(wizard.currentPage()->subTitle()));
    QWizardPage *page = wizard.currentPage();
    QStringList order;
    for (const QFileInfo &file : sResultList.mid(0, 20))
        order << file.fileName();
    printf("files=%d move=%d order=%s\n", int(sResultList.size()), sCopyFiles ? 1 : 0, qPrintable(order.join(',')));
    QVERIFY(!wizard.button(QWizard::BackButton)->isEnabled());
    QVERIFY(!wizard.button(QWizard::FinishButton)->isEnabled());
    auto *bar = page->findChild<QProgressBar *>();

    const int cancelAfter = qEnvironmentVariableIntValue("VELD_CANCEL_AFTER");
    if (cancelAfter > 0) {
        QTRY_VERIFY_WITH_TIMEOUT(bar->value() >= cancelAfter, 60000);
        QVERIFY(!page->isComplete());
        printf("cancelled at=%d\n", bar->value());
        fflush(stdout);
        // As in the installer: the wizard closes, and then the program's end destroys it.
        QTest::mouseClick(wizard.button(QWizard::CancelButton), Qt::LeftButton);
        QVERIFY(!wizard.isVisible());
        QElapsedTimer clock;
        clock.start();
        owned.reset();
        printf("teardown ms=%lld\n", clock.elapsed());
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

private slots:
    void initTestCase();
    void cleanup();
    void install_data();
    void install();
    void cancelDuringTransfer();
    void privateDisks_data();
    void privateDisks();

private:
    // Runs the wizard as user on layout/VELDV400; returns what it printed. With setup, it
    // runs in a private mount namespace prepared by that shell command ("$1" is the
    // layout), and the shell command report runs there after it.
    QString runWizard(const QString &layout, const QString &user, const QString &choose, int cancelAfter = 0,
                      const QString &setup = QString(), const QString &report = QString());

    QTemporaryDir m_dir;
    CountingLauncher m_launcher;
    QString m_system;   // root's system-wide preference folder
};

void tst_Install::initTestCase()
{
    QVERIFY(QFile::setPermissions(m_dir.path(), QFileDevice::Permissions(0x7755)));
    QVERIFY(m_launcher.create(m_dir.path()));
    m_system = m_dir.filePath(QStringLiteral("xdg"));
}

void tst_Install::cleanup()
{
    QVERIFY(allGone(helperProcesses(kHelper)));
}

QString tst_Install::runWizard(const QString &layout, const QString &user, const QString &chosen, int cancelAfter,
                              const QString &setup, const QString &report)
{
    QDir(m_system).removeRecursively();
    QDir().mkpath(m_system);
    m_launcher.reset();
    QProcessEnvironment env = m_launcher.environment(kHelper);
    env.insert(QStringLiteral("XDG_CONFIG_DIRS"), m_system);
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), layout + QStringLiteral("/home"));
    env.insert(QStringLiteral("HOME"), layout + QStringLiteral("/home"));
    env.remove(QStringLiteral("XDG_RUNTIME_DIR"));
    env.insert(QStringLiteral("VELD_CHOOSE"), chosen);
    env.insert(QStringLiteral("VELD_CANCEL_AFTER"), QString::number(cancelAfter));
    QString output;
    runScenario(layout, QStringLiteral("install"), env,
                [&](const QString &program, const QStringList &args) {
                    const QStringList command = asUser(user, program, args);
                    if (setup.isEmpty())
                        return command;
                    return inPrivateMounts(setup, {layout}, QStringLiteral("sh"),
                                           QStringList{"-c", "\"$@\"; status=$?; " + report + "; exit $status", "sh"}
                                               + command);
                },
                &output);
    return output;
}

void tst_Install::install_data()
{
    QTest::addColumn<QString>("user");
    QTest::addColumn<QString>("place");       // where the destination's parent is: "tmp" (the source's disk) or "shm"
    QTest::addColumn<QString>("parentOwner"); // "user" or "root" (0755)
    QTest::addColumn<int>("dataFiles");
    QTest::addColumn<QString>("unreadable");  // a data file the user cannot read, or ""
    QTest::addColumn<QString>("outcome");
    QTest::addColumn<int>("launches");
    QTest::addColumn<bool>("preference");
    QTest::addColumn<QString>("destMode");    // the destination folder afterwards

    const QString installed = QStringLiteral("Database Installed|") + kReady;
    QTest::newRow("copy to another disk; rights asked for the preference only")
        << "veldadmin" << "shm" << "user" << 4 << "" << installed << 1 << true << "veldadmin:veldadmin 0755";
    QTest::newRow("move on the same disk; one password in all")
        << "veldadmin" << "tmp" << "user" << 4 << "" << installed << 1 << true << "veldadmin:veldadmin 0755";
    QTest::newRow("new folder in root's folder: made with rights, then the copy program's complaint")
        << "veldadmin" << "shm" << "root" << 4 << ""
        << "Database was not installed|Error message is:\\n/bin/cp: cannot create regular file '@/VELDV400/d*.qventry': "
           "Permission denied\\n"
        << 1 << false << "root:root 0755";
    QTest::newRow("rights refused after the transfer: installed, no preference")
        << "veldguest" << "shm" << "user" << 4 << "" << installed << 0 << false << "veldguest:veldguest 0755";
    QTest::newRow("a file that cannot be read stops the transfer")
        << "veldadmin" << "shm" << "user" << 6 << "d3.qventry"
        << "Database was not installed|Error message is:\\n/bin/cp: cannot open '#/d3.qventry' for reading: Permission "
           "denied\\n"
        << 0 << false << "veldadmin:veldadmin 0755";
    QTest::newRow("no data files") << "veldadmin" << "shm" << "user" << 0 << ""
                                   << "Database was not installed|The source database data files couldn't be found."
                                   << 0 << false << "veldadmin:veldadmin 0755";
}

void tst_Install::install()
{
    REQUIRE_PRIVILEGED();
    QFETCH(QString, user);
    QFETCH(QString, place);
    QFETCH(QString, parentOwner);
    QFETCH(int, dataFiles);
    QFETCH(QString, unreadable);
    QFETCH(QString, outcome);
    QFETCH(int, launches);
    QFETCH(bool, preference);
    QFETCH(QString, destMode);

    QTemporaryDir layout;
    QTemporaryDir destDisk(place == QLatin1String("shm") ? scratchTemplate(QStringLiteral("tst_install"))
                                                         : m_dir.filePath(QStringLiteral("dest-XXXXXX")));
    const QString source = layout.filePath(QStringLiteral("VELDV400"));
    QVERIFY(QFile::setPermissions(layout.path(), QFileDevice::Permissions(0x7755)));
    QVERIFY(QDir().mkpath(source));
    QVERIFY(QDir().mkpath(layout.filePath(QStringLiteral("home"))));
    for (int i = 1; i <= dataFiles; ++i)
        QVERIFY(makeFile(source + QStringLiteral("/sub%1/d%2.qventry").arg(i % 2).arg(i), 1000 * i));
    QVERIFY(makeFile(source + QStringLiteral("/readme.txt"), 10));
    const passwd *account = getpwnam(user.toLatin1().constData());
    QVERIFY(account);
    const QString chownUser = QStringLiteral("%1:%1").arg(user);
    QCOMPARE(runProcess("chown", {"-R", chownUser, source, layout.filePath("home")}).exitCode, 0);
    if (!unreadable.isEmpty())
        QVERIFY(QFile::setPermissions(source + QStringLiteral("/sub1/") + unreadable, QFileDevice::Permissions()));
    QVERIFY(QFile::setPermissions(destDisk.path(), QFileDevice::Permissions(0x7755)));
    const QString parent = destDisk.filePath(QStringLiteral("parent"));
    QVERIFY(QDir().mkpath(parent));
    if (parentOwner == QLatin1String("user"))
        QCOMPARE(runProcess("chown", {chownUser, parent}).exitCode, 0);
    const QString dest = parent + QStringLiteral("/VELDV400");
    const QStringList sourceBefore = filesIn(source + QStringLiteral("/sub0")) + filesIn(source + QStringLiteral("/sub1"));

    const QString output = runWizard(layout.path(), user, parent);
    QString expected = QRegularExpression::escape(QString(outcome).replace('@', parent).replace('#', source + "/sub1"));
    expected.replace(QLatin1String("\\*"), QLatin1String(".*"));
    QVERIFY2(QRegularExpression(QStringLiteral("^outcome=") + expected + '$', QRegularExpression::MultilineOption)
                 .match(output).hasMatch(),
             printed(output).constData());
    QVERIFY2(output.contains(QStringLiteral("bar hidden=1 back=1 path=%1\n").arg(dest)), printed(output).constData());
    QCOMPARE(m_launcher.launches(), launches);
    QCOMPARE(describeFolder(dest), destMode);

    // The data files, flat and whole; nothing else; the source kept for a copy.
    const bool moved = output.contains(QLatin1String("move=1"));
    QCOMPARE(moved, place == QLatin1String("tmp"));
    QStringList arrived = filesIn(dest);
    if (outcome.startsWith(QLatin1String("Database Installed"))) {
        QStringList all = sourceBefore;
        all.sort();
        QCOMPARE(arrived, all);
    } else if (!unreadable.isEmpty()) {
        // Everything before the unreadable file in the scan's order arrived, nothing after it.
        const QStringList order = output.section(QStringLiteral("order="), 1).section('\n', 0, 0).split(',');
        QStringList before;
        for (const QString &name : order.mid(0, order.indexOf(unreadable)))
            before << name + ':' + QString::number(1000 * name.mid(1).section('.', 0, 0).toInt());
        before.sort();
        QCOMPARE(arrived, before);
    } else {
        QCOMPARE(arrived, QStringList());
    }
    const QStringList sourceAfter = filesIn(source + QStringLiteral("/sub0")) + filesIn(source + QStringLiteral("/sub1"));
    QCOMPARE(sourceAfter, moved ? QStringList() : sourceBefore);

    const QString prefFile = m_system + '/' + kDomain + QStringLiteral(".conf");
    if (preference) {
        QVERIFY2(output.contains(QStringLiteral("pref=%1\n").arg(dest)), printed(output).constData());
        QCOMPARE(QSettings(prefFile, QSettings::IniFormat).value(kKey).toString(), dest);
        QCOMPARE(describeFolder(prefFile), QStringLiteral("root:root 0644"));
    } else {
        QVERIFY(!QFileInfo::exists(prefFile));
    }
}

// Cancel while files are being transferred: the program ends at once with status 0, no
// file is cut short, no child or root helper is left.
void tst_Install::cancelDuringTransfer()
{
    REQUIRE_PRIVILEGED();
    QTemporaryDir layout;
    QTemporaryDir destDisk(scratchTemplate(QStringLiteral("tst_install")));
    const QString source = layout.filePath(QStringLiteral("VELDV400"));
    QVERIFY(QFile::setPermissions(layout.path(), QFileDevice::Permissions(0x7755)));
    QVERIFY(QDir().mkpath(layout.filePath(QStringLiteral("home"))));
    for (int i = 0; i < 400; ++i)
        QVERIFY(makeFile(source + QStringLiteral("/d%1.qventry").arg(i), 4096));
    QCOMPARE(runProcess("chown", {"-R", "veldadmin:veldadmin", source, layout.filePath("home")}).exitCode, 0);
    QVERIFY(QFile::setPermissions(destDisk.path(), QFileDevice::Permissions(0x7777)));

    const QString output = runWizard(layout.path(), QStringLiteral("veldadmin"), destDisk.path(), 20);
    const int at = output.section(QStringLiteral("cancelled at="), 1).section('\n', 0, 0).toInt();
    QVERIFY2(at >= 20, qPrintable(output));
    const QStringList arrived = filesIn(destDisk.filePath(QStringLiteral("VELDV400")));
    QVERIFY2(arrived.size() >= at, qPrintable(arrived.join(' ')));
    const int teardown = output.section(QStringLiteral("teardown ms="), 1).section('\n', 0, 0).toInt();
    QVERIFY2(teardown < 3000, qPrintable(output));
    // No copy program outlives the installer.
    QCOMPARE(runProcess("pgrep", {"-f", source}).out, QString());
    QVERIFY(arrived.size() < 400);
    for (const QString &file : arrived)
        QVERIFY2(file.endsWith(QLatin1String(":4096")), qPrintable(file));
    QCOMPARE(m_launcher.launches(), 0);
    QCOMPARE(filesIn(source).size(), 400);
}

void tst_Install::privateDisks_data()
{
    QTest::addColumn<QString>("setup");
    QTest::addColumn<QString>("chosen");     // the parent folder to pick, or "" for the default destination
    QTest::addColumn<int>("dataFiles");
    QTest::addColumn<QString>("outcome");    // "*" stands for any text
    QTest::addColumn<QString>("report");     // shell commands run in the namespace afterwards
    QTest::addColumn<QStringList>("reported");
    QTest::addColumn<int>("launches");

    // The maker's folder on a disk of its own, made with rights; given to all administrators.
    QTest::newRow("the maker's folder, made with rights")
        << "mount -t tmpfs -o mode=0755 tmpfs /usr/local/share" << "" << 3
        << "Database Installed|" + kReady
        << "stat -c 'folder=%n %U:%G %a' /usr/local/share/Halvornworks /usr/local/share/Halvornworks/VELDV400; "
           "echo files=$(ls /usr/local/share/Halvornworks/VELDV400 | tr '\\n' ' ')"
        << QStringList{"folder=/usr/local/share/Halvornworks root:%A 775",
                       "folder=/usr/local/share/Halvornworks/VELDV400 veldadmin:%A 775",
                       "files=d1.qventry d2.qventry d3.qventry"}
        << 2;
    // 300 files of 1000 bytes fit the free space that df reports, but each takes a page.
    QTest::newRow("the destination's disk fills up during the copy")
        << "mount -t tmpfs -o size=1m,mode=1777 tmpfs \"$1/small\"" << "small" << 300
        << "Database was not installed|Error message is:\\n/bin/cp: *No space left on device\\n"
        << "test $(ls \"$0/small/VELDV400\" | wc -l) -lt 300 && echo some arrived, not all"
        << QStringList{"some arrived, not all"} << 0;
}

void tst_Install::privateDisks()
{
    REQUIRE_PRIVILEGED();
    QFETCH(QString, setup);
    QFETCH(QString, chosen);
    QFETCH(int, dataFiles);
    QFETCH(QString, outcome);
    QFETCH(QString, report);
    QFETCH(QStringList, reported);
    QFETCH(int, launches);
    QTemporaryDir layout;
    const QString source = layout.filePath(QStringLiteral("VELDV400"));
    QVERIFY(QFile::setPermissions(layout.path(), QFileDevice::Permissions(0x7755)));
    QVERIFY(QDir().mkpath(layout.filePath(QStringLiteral("home"))));
    QVERIFY(QDir().mkpath(layout.filePath(QStringLiteral("small"))));
    // Written out, not sparse, so that each copy takes room on the destination.
    QVERIFY(QDir().mkpath(source));
    for (int i = 1; i <= dataFiles; ++i) {
        QFile file(source + QStringLiteral("/d%1.qventry").arg(i));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(QByteArray(1000, 'x')) == 1000);
    }
    QCOMPARE(runProcess("chown", {"-R", "veldadmin:veldadmin", source, layout.filePath("home")}).exitCode, 0);

    const QString output = runWizard(layout.path(), QStringLiteral("veldadmin"),
                                     chosen.isEmpty() ? QString() : layout.filePath(chosen), 0, setup,
                                     QString(report).replace(QLatin1String("$0"), layout.path()));
    for (const QString &line : QStringList{"outcome=" + outcome} + reported) {
        QString pattern = QRegularExpression::escape(QString(line).replace("%A", QString::fromLatin1(adminGroupName())));
        pattern.replace(QLatin1String("\\*"), QLatin1String(".*"));
        QVERIFY2(QRegularExpression('^' + pattern + '$', QRegularExpression::MultilineOption).match(output).hasMatch(),
                 (line.toLocal8Bit() + " not in:\n" + printed(output).right(600)).constData());
    }
    QCOMPARE(m_launcher.launches(), launches);
    // Nothing is lost at the source.
    QCOMPARE(filesIn(source).size(), dataFiles);
}

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    if (argc == 3 && qstrcmp(argv[1], "--scenario") == 0) {
        InstallScenarios scenarios;
        return QTest::qExec(&scenarios, QStringList{QString::fromLocal8Bit(argv[0]), QString::fromLocal8Bit(argv[2])});
    }
    tst_Install test;
    QTEST_SET_MAIN_SOURCE_PATH
    return QTest::qExec(&test, argc, argv);
}

#include "tst_install.moc"
