#include "app/veld_installer.h"
#include "pages/conclusionpage.h"
#include "pages/eulapage.h"
#include "pages/pageids.h"
#include "pages/pagestate.h"
#include "pages/pickdestpage.h"
#include "pages/sourcepage.h"
#include "platform/installpath.h"
#include "platform/locations.h"
#include "platform/privileges.h"
#include "platform/users.h"
#include "platform/volume.h"
#include "workers/sizethread.h"
#include "testsupport.h"

#include <QAbstractButton>
#include <QApplication>
#include <QCheckBox>
#include <QLabel>
#include <QPushButton>
#include <QResource>
#include <QTextBrowser>

#include <sys/file.h>

// The wizard, driven as a user drives it. Page rows run in a copy of this program in a bundle beside layout/VELDV400,
// in a private mount namespace with an empty /media, where small memory file systems stand in for other disks.

namespace {

const QString kWelcome = QStringLiteral("Welcome to the Quorvan Spectra and Properties Database Installer");
const QString kChosen = QStringLiteral("This Installer will copy or move the Quorvan Spectra and Properties Database from "
                                       "%1 to your hard disk.\n\nThe databases will occupy approximately %2 GB  of additional disk space.");
const QString kFixed = kChosen.arg("the source folders", "%1");
const QString kFind = QStringLiteral("\nPlease press \"Find data files\" to locate the \"VELDV400\" database source files folder.");
const QString kStoredIn = QStringLiteral("The database will be stored in\n\n%1\n\nClick \"Continue\" to install here, or "
                                         "\"Choose\" to select another location.");
const QString kMoved = QStringLiteral("The files will be moved to the selected location.");
const QString kNoRoom = QStringLiteral("The selected disk does not have enough free space to store the database (%1 "
                                       "additional needed). Please select another location.");
const QStringList kSmallSource{"f|VELDV400/sample.qventry|19"};
const QStringList kDestLayout{"f|VELDV400/data/a.qventry|1000", "d|Other Disk é"};

QString layoutFolder()
{
    return QFileInfo(QString::fromStdString(GetInstallPath()) + "/..").absoluteFilePath();
}

// Runs the row in a layout of entries (tree lines) and the agreement, after setup ("$1": the layout) in its namespace.
void runInLayout(const QStringList &entries, const QString &setup = "true", bool agreement = true)
{
    if (runProcess(wrapped({"true"}, {inPrivateMounts("true")})).exitCode != 0)
        QSKIP("needs a private mount namespace (root, or unprivileged user namespaces)");
    QTemporaryDir layout;
    QVERIFY(buildTree(layout.path(), entries));
    QVERIFY(!agreement || writeFile(layout.filePath("Test Installer.app/Contents/Resources/LicenseAgreement.html"),
                                    fileBytes(QFileInfo(VELD_INSTALLER).path() + "/../Resources/LicenseAgreement.html")));
    runRowInChild({layout.filePath("Test Installer.app/Contents/MacOS/tst_wizard"),
                   {inPrivateMounts("mount -t tmpfs tmpfs /media && " + setup, {layout.path()})}});
}

// The texts in the window (pages, titles and subtitles) that do not fit the room they have.
QStringList cutTexts(QWizard &wizard)
{
    QStringList cut;
    for (QLabel *label : wizard.findChildren<QLabel *>()) {
        const QSize needed = label->wordWrap() ? QSize(0, label->heightForWidth(label->width())) : label->sizeHint();
        if (label->isVisible() && !label->text().isEmpty() && (label->height() < needed.height() || label->width() < needed.width()))
            cut << label->text();
    }
    return cut;
}

// Below HOME: a name of 120 characters with no place to break a line, and one with blanks.
const QString kLongFolder = "Disk/" + QString("x").repeated(120) + "/ein Ordner mit Leerzeichen und Umlauten äöü";
const QString kInstalled = QStringLiteral("Database Installed|The Quorvan Spectra and Properties Database is now ready for use.");

// The first box answered was at most as wide as the wizard, and said text: in full (where it may break), or cut
// with the whole in its details area.
bool fitsWizard(QWizard &wizard, const QString &text)
{
    const QString shown = answeredMessageBoxes.value(0).section('|', 1, 1).remove(QChar(0x200B));
    const QString width = answeredMessageBoxLayouts.value(0).section('|', 0, 0), details = answeredMessageBoxLayouts.value(0).section('|', 1);
    const bool whole = shown == text || (shown.contains(QChar(0x2026)) && details == text);
    if (whole && width.toInt() > 0 && width.toInt() <= wizard.width())
        return true;
    qWarning("%s wide (the wizard %d):\n%s\ndetails: %s", qPrintable(width), wizard.width(), qPrintable(shown), qPrintable(details));
    return false;
}

} // namespace

class tst_Wizard : public QObject
{
    Q_OBJECT

    QTemporaryDir m_prefs;
    SourcePage *page = nullptr;   // the source page's parts
    QLabel *label = nullptr;
    QPushButton *find = nullptr;
    QAbstractButton *next = nullptr;

    void view(QWizard &wizard)
    {
        page = qobject_cast<SourcePage *>(wizard.page(kSourcePageId));
        label = page->findChild<QLabel *>();
        find = page->findChild<QPushButton *>();
        next = wizard.button(QWizard::NextButton);
    }

private slots:
    void initTestCase()
    {
        const QProcessEnvironment prefs = scratchPreferences(m_prefs.path());
        qputenv("XDG_CONFIG_HOME", prefs.value("XDG_CONFIG_HOME").toLocal8Bit());
        qputenv("HOME", QFile::encodeName(m_prefs.filePath("home")));   // a row's own, as each runs in a process of its own
    }
    // No window may outlive the test that made it.
    void cleanup() { QVERIFY(QApplication::topLevelWidgets().isEmpty()); }

    // The frame, its images (stored uncompressed), the agreement, and the pages in the order agreement, source,
    // destination, installation, and back again to the agreement, which stays accepted.
    void frameAndPageOrder()
    {
        if (!inChild())
            return runInLayout(kSmallSource);
        gAdminGid = 12345;
        VELD_Installer wizard;
        install_wizard = &wizard;
        QCOMPARE(GetMainWindow(), static_cast<QWidget *>(&wizard));
        QCOMPARE(gAdminGid, getGroupId(adminGroupName()));
        QCOMPARE(wizard.windowTitle() + wizard.page(kEulaPageId)->title() + wizard.page(kSourcePageId)->title(), kWelcome.repeated(3));
        wizard.SetWindowTitle("Datenbank \xc3\xbc\xe2\x82\xac");
        QCOMPARE(wizard.windowTitle(), QStringLiteral("Datenbank \u00fc\u20ac"));
        wizard.SetWindowTitle(std::string());   // restores the default
        QCOMPARE(wizard.windowTitle(), kWelcome);
        // The artwork, in a strip beside the pages: far more than the few colours of a plain fill.
        const QImage strip = wizard.sideWidget()->grab().toImage();
        QSet<QRgb> colours;
        for (int y = 0; y < strip.height() / 4; ++y)
            for (int x = 0; x < strip.width(); ++x)
                colours << strip.pixel(x, y);
        QVERIFY(colours.size() > 100);
        for (const char *image : {":/images/VELD_DVD_Artwork.png", ":/images/app_64.png", ":/images/GNX_DVD_Artwork.png"})
            QCOMPARE(QResource(image).compressionAlgorithm(), QResource::NoCompression);
        wizard.show();
        QWizardPage *eula = wizard.page(kEulaPageId);
        const auto *browser = eula->findChild<QTextBrowser *>();
        QCOMPARE(browser->source().toString(), QString::fromStdString(GetInstallPath()) + "/Contents/Resources/LicenseAgreement.html");
        QVERIFY(browser->toPlainText().contains("End-User License Agreement"));
        QCOMPARE(eula->findChild<QLabel *>()->text(),
                 QStringLiteral("If you accept the terms of the agreement, click the check box below.  You must accept "
                                "the agreement to install the Quorvan Spectra and Properties Database."));
        QCOMPARE(eula->findChild<QCheckBox *>()->text(), QStringLiteral("I accept the terms in the License Agreement"));
        for (int click = 0; click < 3; ++click) {   // untouched, ticked, unticked, and ticked again
            QCOMPARE(eula->findChild<QCheckBox *>()->isChecked() + wizard.button(QWizard::NextButton)->isEnabled(), 2 * (click % 2));
            clickAcceptBox(wizard);
        }
        QList<int> shown{wizard.currentId()};
        for (auto *next = wizard.button(QWizard::NextButton); next->isVisible() && next->isEnabled(); shown << wizard.currentId())
            QTest::mouseClick(next, Qt::LeftButton);
        // The installation page, at work from the moment it shows, offers no way back.
        QVERIFY(wizard.button(QWizard::FinishButton)->isVisible() && !wizard.button(QWizard::BackButton)->isEnabled());
        wizard.back();
        for (auto *back = wizard.button(QWizard::BackButton); back->isEnabled(); shown << wizard.currentId())
            QTest::mouseClick(back, Qt::LeftButton);
        QCOMPARE(shown, (QList<int>{1, 0, 2, 3, 0, 1}));
        QVERIFY(wizard.page(kEulaPageId)->findChild<QCheckBox *>()->isChecked() && wizard.button(QWizard::NextButton)->isEnabled());
        install_wizard = nullptr;
    }

    // Without its file the agreement shows nothing, and can still be accepted.
    void agreementMissing()
    {
        if (!inChild())
            return runInLayout(kSmallSource, "true", false);
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("No document for"));
        VELD_Installer wizard;
        wizard.show();
        QVERIFY(wizard.page(kEulaPageId)->findChild<QTextBrowser *>()->toPlainText().isEmpty());
        clickAcceptBox(wizard);
        QVERIFY(wizard.button(QWizard::NextButton)->isEnabled());
    }

    // The bundle's own executable starts, even without an administrators' group in a
    // private /etc/group, finds its log preference under its cleaned name and keeps running.
    void realInstallerStarts()
    {
        QTemporaryDir prefs;
        const QString log = prefs.path() + "/run.log";
        QProcessEnvironment env = scratchPreferences(prefs.path());
        writePreferences(prefs.path() + "/home/.config", "com.halvorn.Quorvan", {"VELDInstaller_LogLocation=" + log});
        env.insert("QT_QPA_PLATFORM", "offscreen");
        QVERIFY(writeFile(prefs.path() + "/group", "root:x:0:\nusers:x:100:\n"));
        const QStringList command = wrapped({VELD_INSTALLER}, {inPrivateMounts("mount --bind \"$1\" /etc/group", {prefs.path() + "/group"})});
        QProcess installer;
        installer.setProcessEnvironment(env);
        installer.start(command.first(), command.mid(1));
        auto stop = qScopeGuard([&] {
            installer.kill();
            installer.waitForFinished(5000);
        });
        QVERIFY(installer.waitForStarted(60000));
        QTRY_VERIFY_WITH_TIMEOUT(logMessages(log).value(0).startsWith("---VELDInstaller["), 60000);
        QVERIFY(!installer.waitForFinished(500));
    }

    // The whole way with Tab, Space, Return and Escape alone: the agreement, the source, a destination typed into
    // the folder dialog, the outcome; at one window size, every text whole, the button saying "Continue" as the
    // pages do. (Without a window manager the test gives the window back its keyboard after a dialog.)
    void keyboardOnly()
    {
        if (!inChild())
            return runInLayout(kSmallSource);
        const QString parent = QDir::home().filePath("Disk");
        QVERIFY(QDir().mkpath(parent));
        answerMessageBoxes(true);   // rights for the preference: refused
        VELD_Installer wizard;
        wizard.show();
        QStringList faces;
        const auto key = [&](Qt::Key key, bool look = false) {
            if (look)
                faces << QStringLiteral("%1x%2 %3 %4").arg(wizard.width()).arg(wizard.height())
                             .arg(wizard.button(QWizard::NextButton)->text(), cutTexts(wizard).join('|'));
            wizard.activateWindow();
            QVERIFY(QTest::qWaitForWindowActive(&wizard));
            QTest::keyClick(wizard.windowHandle(), key);
        };
        const auto tabTo = [&](QWidget *target) {
            for (int step = 0; step < 20 && QApplication::focusWidget() != target; ++step)
                key(Qt::Key_Tab);
            return QApplication::focusWidget() == target;
        };
        QVERIFY(tabTo(wizard.page(kEulaPageId)->findChild<QCheckBox *>()));
        key(Qt::Key_Space);
        key(Qt::Key_Return, true);
        QVERIFY(SizeThread::waitForScans());
        key(Qt::Key_Return, true);
        QVERIFY(tabTo(wizard.page(kPickDestPageId)->findChild<QPushButton *>()));
        answerFolderDialog(parent);
        key(Qt::Key_Space);
        key(Qt::Key_Return, true);
        QTRY_VERIFY_WITH_TIMEOUT(wizard.button(QWizard::FinishButton)->isEnabled(), 60000);
        key(Qt::Key_Return, true);
        QVERIFY(!wizard.isVisible() && wizard.result() == QDialog::Accepted && QFileInfo::exists(parent + "/VELDV400/sample.qventry"));
        QCOMPARE(faces, QVector<QString>(4, QStringLiteral("%1x%2 Continue ").arg(wizard.width()).arg(wizard.height())).toList());
        VELD_Installer again;
        again.show();
        QTest::keyClick(again.windowHandle(), Qt::Key_Escape);
        QVERIFY(!again.isVisible() && again.result() == QDialog::Rejected);
    }

    void interruptedMove_data()
    {
        QTest::addColumn<QString>("record");   // the journal: "SOURCE>DESTINATION" below HOME, or other text
        QTest::addColumn<QString>("setup");    // what else there is: "dest" (with a data file), "source" (with one), "held"
        QTest::addColumn<bool>("escape");      // the box answered with Escape, else with its default button
        QTest::addColumn<QString>("box");      // the box shown: "resume", "missing", "busy" or none
        QTest::addColumn<QString>("after");    // "agreement", "closed", or the outcome's title and subtitle
        QTest::addColumn<bool>("kept");        // the record is still there
        const QString moved = "Source/VELDV400>" + kLongFolder + "/VELDV400";
        QTest::newRow("not a record") << "VELD Installer move\nsource=Source\n" << "" << false << "" << "agreement" << false;
        QTest::newRow("a destination this installer would not choose") << "Source/VELDV400>Disk" << "dest source" << false << ""
                                                                        << "agreement" << false;
        QTest::newRow("destination gone: quit") << moved << "source" << false << "missing" << "closed" << true;
        QTest::newRow("destination gone: a new installation") << moved << "source" << true << "missing" << "agreement" << false;
        QTest::newRow("source gone: every file moved") << "Gone/VELDV400>" + kLongFolder + "/VELDV400" << "dest" << false
                                                        << "resume" << kInstalled << false;
        QTest::newRow("completion refused") << moved << "dest source" << true << "resume" << "closed" << true;
        QTest::newRow("another installer at work") << moved << "dest source held" << false << "busy" << "closed" << true;
    }

    // A record of a move left by an earlier run, with its odd cases: the boxes fit the wizard, however long the paths.
    void interruptedMove()
    {
        QFETCH(QString, record);
        QFETCH(QString, setup);
        QFETCH(bool, escape);
        QFETCH(QString, box);
        QFETCH(QString, after);
        QFETCH(bool, kept);
        if (!inChild())
            return runInLayout(kSmallSource);
        const QDir home = QDir::home();
        const QString journal = qEnvironmentVariable("XDG_CONFIG_HOME") + "/com.halvorn.VELDInstaller.move";
        const QString source = home.filePath(record.section('>', 0, 0)), dest = home.filePath(record.section('>', 1));
        QVERIFY(writeFile(journal, record.contains('>') ? "VELD Installer move\nsource=" + source.toUtf8().toPercentEncoding("/")
                                                              + "\ndestination=" + dest.toUtf8().toPercentEncoding("/") + '\n'
                                                        : record.toUtf8()));
        QVERIFY(!setup.contains("dest") || makeFile(dest + "/a.qventry", 1));
        QVERIFY(!setup.contains("source") || makeFile(source + "/b.qventry", 1));
        const int held = setup.contains("held") ? ::open(QFile::encodeName(journal).constData(), O_RDONLY) : -1;
        QVERIFY(held < 0 || ::flock(held, LOCK_EX) == 0);
        answerMessageBoxes(escape);
        VELD_Installer wizard;
        wizard.show();
        if (after == "closed")
            QTRY_VERIFY_WITH_TIMEOUT(!wizard.isVisible(), 60000);
        else if (after == "agreement")
            QTRY_VERIFY_WITH_TIMEOUT(answeredMessageBoxes.size() == !box.isEmpty() && wizard.currentId() == int(kEulaPageId), 60000);
        else
            QTRY_VERIFY_WITH_TIMEOUT(wizard.currentPage()->isComplete(), 60000);
        QVERIFY(!after.contains('|') || wizard.currentPage()->title() + '|' + wizard.currentPage()->subTitle() == after);
        QCOMPARE(QFileInfo::exists(journal), kept);
        QCOMPARE(QFileInfo::exists(source + "/b.qventry"), setup.contains("source"));
        QCOMPARE(answeredMessageBoxes.size(), int(!box.isEmpty()) + int(box == "resume" && !escape));   // and the rights asked
        if (box.isEmpty())
            return;
        const QString interrupted = "An earlier installation was interrupted while it moved the database files from\n\n" + source
                                    + "\n\nto\n\n" + dest;
        const QString text = box == "busy" ? "Another VELD Installer is moving database files now. Please wait until it has finished, "
                                             "then start VELD Installer again."
                             : box == "resume" ? interrupted + "\n\nVELD Installer will now move the remaining files to the same "
                                                              "folder and complete the installation."
                                               : interrupted + "\n\nThat folder cannot be found now. If it is on a disk that is not "
                                                 "connected, quit, connect the disk and start VELD Installer again. Otherwise the files "
                                                 "moved there are lost: start a new installation from the original database disk.";
        QVERIFY(fitsWizard(wizard, text));
    }

    // An information box naming a path too long for a few lines, cut in its middle, stays as wide as the wizard at most.
    void longTextInBox()
    {
        VELD_Installer wizard;
        wizard.show();
        answerMessageBoxes(false);
        const QString text = "VELD Installer could not read " + QDir::homePath() + "/" + kLongFolder + QString("/y").repeated(150)
                             + "/entry.qventry, a path too long to show whole.";
        installInfoDialog(text.toUtf8().constData(), nullptr);
        QVERIFY(fitsWizard(wizard, text) && answeredMessageBoxLayouts.value(0).section('|', 1) == text);
    }

    // The outcome of a failure naming a long path (a copy program's words about a 255-byte name, say) wraps within
    // the window's opening width instead of widening the window; only a word too long for a few lines is cut.
    void longTextInOutcome_data()
    {
        QTest::addColumn<QString>("message");
        const QString dest = "/Volumes/Data/" + kLongFolder + "/VELDV400/";
        QTest::newRow("a long folder") << "Error message is:\n/bin/cp: cannot create regular file '" + dest
                                              + "a.qventry': Permission denied\n";
        QTest::newRow("a 255-byte name") << "Error message is:\n/bin/cp: cannot stat '" + dest + QString("n").repeated(245)
                                                + ".qvkindex': No such file or directory\n";
    }

    void longTextInOutcome()
    {
        QFETCH(QString, message);
        VELD_Installer wizard;
        // Shown without an event loop, so the page's transfer is never started; only its layout is brought up to date.
        wizard.setStartId(kConclusionPageId);
        wizard.show();
        const int opening = wizard.width();
        wizard.currentPage()->setSubTitle(ConclusionPage::failureText(-100, message));
        QCoreApplication::sendPostedEvents(nullptr, QEvent::LayoutRequest);
        QVERIFY2(wizard.width() <= opening, qPrintable(QString::number(wizard.width())));
        const QString shown = wizard.currentPage()->subTitle().remove(QChar(0x200B));
        QVERIFY(shown == message || (message.contains(QString("n").repeated(245)) && shown.contains(QChar(0x2026))));
    }

    void fixedSource_data()
    {
        QTest::addColumn<QStringList>("beside");   // the layout beside the bundle
        QTest::addColumn<qint64>("removable");     // size of a data file on the removable disk, or -1
        QTest::addColumn<qint64>("shown");         // the total the page shows for the source it finds, or -1
        QTest::newRow("only on the removable disk") << QStringList{} << qint64(2222222222) << qint64(2222222222);
        QTest::newRow("beside the bundle comes first") << QStringList{"f|VELDV400/a.qventry|10"} << qint64(2222222222) << qint64(10);
        QTest::newRow("found but without data files") << QStringList{"f|VELDV400/c.txt|9"} << qint64(-1) << qint64(0);
        QTest::newRow("neither") << QStringList{} << qint64(-1) << qint64(-1);
    }

    void fixedSource()
    {
        QFETCH(QStringList, beside);
        QFETCH(qint64, removable);
        QFETCH(qint64, shown);
        if (!inChild())
            return runInLayout(beside);
        QVERIFY(removable < 0 || makeFile(QString::fromStdString(removableSourceFolder()) + "/sub/r.qvkindex", removable));
        const bool found = shown >= 0;
        VELD_Installer wizard;
        view(wizard);
        // Before any event is processed, so before any scan can have reported: a found source makes the page complete at once.
        const QString notFound = "The VELDV400 database source folder was not found." + kFind;
        QVERIFY(page->dbSize == 0 && page->isComplete() == found && SizeThread::scansPending() == found);
        QCOMPARE(label->text(), found ? QString() : notFound);
        goToSourcePage(wizard);
        QVERIFY(SizeThread::waitForScans());
        for (int visit = 0; visit < 2; ++visit) {   // leaving and coming back changes nothing
            QCOMPARE(label->text(), found ? kFixed.arg(::sizeFigure(quint64(shown))) : notFound);
            QVERIFY(page->dbSize == quint64(qMax(shown, qint64(0))) && find->isVisible() != found && next->isEnabled() == found);
            QVERIFY(!found || next->text() == "Continue");
            wizard.next();
            wizard.back();
        }
    }

    void chooseFolder_data()
    {
        QTest::addColumn<QStringList>("choices");   // folders below HOME in the order chosen; "" cancels
        QTest::newRow("dialog cancelled") << QStringList{""};
        QTest::newRow("empty, then 5 GB") << QStringList{"Empty/MyData", "Data/MyData"};
        QTest::newRow("a second choice while the first is measured") << QStringList{"Big", "Data/MyData"};
    }

    void chooseFolder()
    {
        QFETCH(QStringList, choices);
        if (!inChild())
            return runInLayout({});
        const QDir home = QDir::home();
        QVERIFY(buildTree(home.path(), {"f|Data/MyData/x.qventry|4000000000", "f|Data/MyData/deeper/y.qvindex|1000000000",
                                        "f|Data/MyData/notes.txt|7", "f|Empty/MyData/readme.txt|100", "f|Empty/MyData/e.qventry|0", "f|Big/a/z.qventry|1",
                                        "f|Big/b/z.qventry|1"}));
        // "Big" is still measured when the next choice comes; every other choice is measured before the next.
        const bool held = choices.first() == "Big";
        if (held)
            ScanGate::close();
        VELD_Installer wizard;
        view(wizard);
        goToSourcePage(wizard);
        QVERIFY(!next->isEnabled());
        for (const QString &choice : choices) {
            answerFolderDialog(choice.isEmpty() ? QString() : home.filePath(choice));
            QTest::mouseClick(find, Qt::LeftButton);
            QCOMPARE(folderDialogSeen, "Select Database directory|" + home.path() + "|dirs only");
            QCOMPARE(label->text(), QStringLiteral("Scanning..."));
            QVERIFY(held ? choice != choices.first() || ScanGate::waitUntilHeld() : SizeThread::waitForScans());
            if (choice.startsWith("Empty"))
                QCOMPARE(label->text(), "No VELDV400 database files were found in MyData." + kFind);
        }
        ScanGate::release();
        QVERIFY(SizeThread::waitForScans());
        QCOMPARE(ScanGate::foldersAfterCancel(), 0);
        // The page shows the last choice, and the source's files are that folder's and no one else's.
        const QString last = choices.last();
        QList<SourceFile> expected;
        const quint64 total = last.isEmpty() ? 0 : SizeThread::dirSize(home.filePath(last), expected);
        QCOMPARE(paths(sSourceFiles), paths(expected));
        QCOMPARE(page->dbSize, total);
        QCOMPARE(label->text(), last.isEmpty() ? "Scanning..." : kChosen.arg("\"MyData\"", ::sizeFigure(total)));
        QCOMPARE(find->isHidden(), total > 0);
        QCOMPARE(next->isEnabled(), total > 0);
        QVERIFY(!find->isDefault() && (!total || next->text() == "Continue"));
    }

    // The wizard is left with Cancel, then by closing its window, while the scan is held among its folders: the
    // event loop ends with 0, and the wizard goes away without the walk going further.
    void closeWhileScanning()
    {
        if (!inChild())
            return runInLayout({"f|VELDV400/s/b.qventry|1", "f|VELDV400/t/c.qventry|1"});
        for (const bool viaCancelButton : {true, false}) {
            bool scanning = false;
            int status = -1;
            ScanGate::close();
            {
                VELD_Installer wizard;
                wizard.show();
                QVERIFY(ScanGate::waitUntilHeld());
                QTimer::singleShot(0, &wizard, [&] {
                    scanning = SizeThread::scansPending();
                    viaCancelButton ? QTest::mouseClick(wizard.button(QWizard::CancelButton), Qt::LeftButton) : void(wizard.close());
                });
                status = QApplication::exec();
            }
            QVERIFY(status == 0 && scanning && !SizeThread::scansPending() && ScanGate::foldersAfterCancel() == 0);
        }
    }

    // The folder whose volume stands for a destination's, the folder df is asked about (below a scratch folder
    // holding "d/e" and the file "f"), the shortage shown and the source's size in GB, the same in every locale.
    void rules_data()
    {
        const QString shared = QString::fromUtf8(kSharedParent);
        ruleRows({
            {"probeFolderFor", "shared parent's name as a prefix", shared + "d/VELDV400", shared},
            {"probeFolderFor", "other case", shared.toUpper() + "/VELDV400", shared.toUpper()},
            {"probeFolderFor", "chosen folder", "/home/u/Mes données/VELDV400_0", "/home/u/Mes données"},
            {"probeFolderFor", "the root's", "//VELDV400", "/"},
            {"probeFolderFor", "slash first only", "/VELDV400", "/VELDV400"},
            {"spaceProbeFolder", "existing", "d/e", "d/e"},
            {"spaceProbeFolder", "missing chain", "d/x/y/z", "d"},
            {"spaceProbeFolder", "below a file", "f/x", "f"},
            {"spaceProbeFolder", "nothing but the root", "/nonexistent-veld/a/b", "/"},
            {"shortageText", "remainder dropped", "1999", "1.00 KB"},
            {"shortageText", "10^6", "1000000", "1000.00 KB"},
            {"shortageText", "above 10^6", "1000001", "1.00 MB"},
            {"shortageText", "10^9", "1000000000", "1000.00 MB"},
            {"shortageText", "above 10^9", "1000000001", "1.00 GB"},
            {"sizeFigure", "12345678901", "12345678901", "12.35"},
            {"sizeFigure", "999999999 rounds up", "999999999", "1.00"},
            {"sizeFigure", "largest", "18446744073709551615", "18446744073.71"},
        });
    }

    void rules()
    {
        QFETCH(QString, rule);
        QFETCH(QString, input);
        QFETCH(QString, expected);
        QTemporaryDir scratch;
        QVERIFY(QDir().mkpath(scratch.filePath("d/e")) && makeFile(scratch.filePath("f"), 1));
        const auto in = [&](const QString &path) { return path.startsWith('/') ? path : scratch.filePath(path); };
        for (const QLocale &locale : {QLocale::c(), QLocale(QLocale::German), QLocale(QLocale::Arabic, QLocale::Egypt)}) {
            QLocale::setDefault(locale);
            QCOMPARE(rule == "probeFolderFor" ? ::probeFolderFor(input)
                     : rule == "shortageText" ? ::shortageText(input.toLongLong())
                     : rule == "sizeFigure"   ? ::sizeFigure(input.toULongLong())
                                              : QString::fromStdString(::spaceProbeFolder(QFile::encodeName(in(input)).toStdString())),
                     rule == "spaceProbeFolder" ? in(expected) : expected);
        }
        QLocale::setDefault(QLocale::c());
    }

    void chooseNames_data()
    {
        QTest::addColumn<QString>("parent");      // below HOME; "/" is the root; "-" cancels the dialog
        QTest::addColumn<QStringList>("taken");   // names in parent; "file:" makes a file, "link:" a link that leads nowhere
        QTest::addColumn<QString>("proposed");    // the destination proposed, below HOME or absolute
        QTest::newRow("taken by a file, then a link that leads nowhere")
            << "Disk" << QStringList{"file:VELDV400", "link:VELDV400_0"} << "Disk/VELDV400_1";
        QTest::newRow("blanks, accents and percent signs")
            << "Mes données/ü 100%1 %2" << QStringList{"VELDV400"} << "Mes données/ü 100%1 %2/VELDV400_0";
        QTest::newRow("the root") << "/" << QStringList{} << "//VELDV400";
        QTest::newRow("cancelled") << "-" << QStringList{} << QString::fromUtf8(kDefaultDestination);
    }

    // Twice: back to the source page and on again drops the choice.
    void chooseNames()
    {
        QFETCH(QString, parent);
        QFETCH(QStringList, taken);
        QFETCH(QString, proposed);
        if (parent == "/" && QFileInfo::exists("/VELDV400"))
            QSKIP("this machine has a /VELDV400");
        if (!inChild())
            return runInLayout(kDestLayout);
        const QDir home = QDir::home();
        const QString parentPath = parent.startsWith('/') ? parent : home.filePath(parent);
        QVERIFY(QDir().mkpath(parentPath));
        for (const QString &name : taken)
            QVERIFY(name.startsWith("file:")   ? makeFile(parentPath + '/' + name.mid(5), 1)
                    : name.startsWith("link:") ? QFile::link("/nonexistent", parentPath + '/' + name.mid(5))
                                               : QDir().mkpath(parentPath + '/' + name));
        const QString expected = proposed.startsWith('/') ? proposed : home.filePath(proposed);
        const QString defaultText = QString::fromUtf8(kDefaultDestination);
        VELD_Installer wizard;
        goToDestPage(wizard);
        QWizardPage *page = wizard.currentPage();
        auto *chooseButton = page->findChild<QPushButton *>();
        auto *next = qobject_cast<QPushButton *>(wizard.button(QWizard::NextButton));
        for (int visit = 0; visit < 2; ++visit) {
            QCOMPARE(page->title() + '|' + chooseButton->text() + '|' + wizard.field("path").toString(),
                     "Select Database location|Choose...|" + defaultText);
            QCOMPARE(page->subTitle(), kStoredIn.arg(defaultText));
            QVERIFY(chooseButton->isVisible() && !chooseButton->isDefault() && next->isEnabled());
            choose(wizard, parent == "-" ? QString() : parentPath);
            QCOMPARE(wizard.field("path").toString(), expected);
            QCOMPARE(page->subTitle(), kStoredIn.arg(expected));
            QVERIFY(parent == "-" || next->isDefault());
            QTest::mouseClick(wizard.button(QWizard::BackButton), Qt::LeftButton);
            QTest::mouseClick(next, Qt::LeftButton);
            QCOMPARE(wizard.currentId(), int(kPickDestPageId));
        }
    }

    void decide_data()
    {
        QTest::addColumn<QString>("setup");   // shell commands in the row's namespace; "$1" is the layout
        QTest::addColumn<qint64>("sourceBytes");   // of each file
        QTest::addColumn<int>("files");
        QTest::addColumn<QString>("chosen");   // a folder of the layout, or "" for the default destination
        QTest::addColumn<QString>("expect");   // "move", "copy" or "refuse:" and the amount shown
        // An 8 MiB disk: df reports 8192 KiB free, which counts as 8,000,000 bytes. A move needs no
        // room, so it is decided with the source's 1 MiB disk filled up, as the real df shows.
        const QString other = "mount -t tmpfs -o size=8m tmpfs \"$1/Other Disk é\"";
        const QString fullSource = "mount -t tmpfs -o size=1m tmpfs \"$1/VELDV400\" && { cat /dev/zero > \"$1/VELDV400/filler\" "
                                   "2>/dev/null; [ $(df -k --output=avail \"$1/VELDV400\" | tail -n 1) -lt 1024 ]; }";
        QTest::newRow("other disk, room to the last block") << other << qint64(7995392) << 1 << "Other Disk é" << "copy";
        QTest::newRow("other disk, room for the bytes but not the last block") << other << qint64(7999999) << 1 << "Other Disk é" << "refuse:3.00 KB";
        QTest::newRow("other disk, free space equal to the size") << other << qint64(8000000) << 1 << "Other Disk é" << "refuse:0.00 KB";
        // Each file takes whole 4,096-byte blocks there: 4,097 bytes take two, so 977 files hold 4,002,769 bytes in
        // 8,003,584 bytes of blocks (and 7,999,999 bytes take 8,003,584 too).
        QTest::newRow("other disk, small files whose blocks do not fit") << other << qint64(4097) << 977 << "Other Disk é" << "refuse:3.00 KB";
        QTest::newRow("same disk, full") << fullSource << qint64(5000000000) << 1 << "VELDV400" << "move";
        QTest::newRow("source on a disk of its own, destination beside the earlier entry")
            << "mount -t tmpfs tmpfs \"$1/VELDV400\"" << qint64(1000) << 1 << "Other Disk é" << "copy";
        QTest::newRow("default, measured on the shared parent")
            << "mount -t tmpfs tmpfs /usr/local && mkdir /usr/local/share && mount -t tmpfs -o size=8m tmpfs /usr/local/share"
            << qint64(8000000) << 1 << "" << "refuse:0.00 KB";
        QTest::newRow("default, no shared parent, so its nearest ancestor")
            << "mount -t tmpfs -o size=8m tmpfs /usr/local" << qint64(8000000) << 1 << "" << "refuse:0.00 KB";
    }

    void decide()
    {
        QFETCH(QString, setup);
        QFETCH(qint64, sourceBytes);
        QFETCH(int, files);
        QFETCH(QString, chosen);
        QFETCH(QString, expect);
        if (!inChild())
            return runInLayout(kDestLayout, setup);
        QVERIFY(makeFile(layoutFolder() + "/VELDV400/data/a.qventry", sourceBytes));   // sparse
        for (int n = 1; n < files; ++n)
            QVERIFY(makeFile(layoutFolder() + QStringLiteral("/VELDV400/data/%1.qventry").arg(n), sourceBytes));
        // An entry of an earlier source, on the layout's own disk, stays in the list without deciding anything.
        QVERIFY(makeFile(layoutFolder() + "/earlier.qventry", 0));
        sResultList = {SourceFile{QFile::encodeName(layoutFolder() + "/earlier.qventry"), 0}};
        VELD_Installer wizard;
        goToDestPage(wizard);
        if (!chosen.isEmpty())
            choose(wizard, layoutFolder() + '/' + chosen);
        const QString destination = wizard.field("path").toString();
        QWizardPage *page = wizard.currentPage();
        sCopyFiles = expect != "move";   // the opposite of what must come out
        QTest::mouseClick(wizard.button(QWizard::NextButton), Qt::LeftButton);
        const bool refused = expect.startsWith("refuse:");
        QCOMPARE(wizard.currentId(), int(refused ? kPickDestPageId : kConclusionPageId));
        QCOMPARE(sCopyFiles, expect == "move");
        QCOMPARE(page->subTitle(), refused ? kNoRoom.arg(expect.mid(7)) : sCopyFiles ? kMoved : kStoredIn.arg(destination));
    }

    void waitForScan_data()
    {
        QTest::addColumn<QString>("actions");   // what the user does while the scan is waited for
        QTest::addColumn<int>("after");         // the page shown once the wait is over, -1 when closed
        QTest::addColumn<QString>("shown");     // the destination page's subtitle then: "moved" or the destination
        const QString first = layoutFolder() + "/VELDV400_0", other = layoutFolder() + "/Other Disk é/VELDV400";
        QTest::newRow("Continue again") << "Next" << int(kConclusionPageId) << "moved";
        QTest::newRow("Back") << "Back" << int(kSourcePageId) << first;
        QTest::newRow("Cancel") << "Cancel" << -1 << first;
        // The first Continue was for a destination that the page no longer shows.
        QTest::newRow("Back, then Next") << "Back Next" << int(kPickDestPageId) << QString::fromUtf8(kDefaultDestination);
        QTest::newRow("another folder chosen") << "Choose" << int(kPickDestPageId) << other;
    }

    // Continue while the source beside the bundle is still measured (held at the
    // scan gate), on the same disk as the destination chosen.
    void waitForScan()
    {
        QFETCH(QString, actions);
        QFETCH(int, after);
        QFETCH(QString, shown);
        if (!inChild())
            return runInLayout(kDestLayout);
        bool waiting = false;   // the scan still pending at Continue, with the busy cursor, and after the actions
        int pageAfterWait = -1;
        ScanGate::close();
        VELD_Installer wizard;
        QVERIFY(ScanGate::waitUntilHeld());
        QTimer::singleShot(0, &wizard, [&] {
            goToSourcePage(wizard);
            QTest::mouseClick(wizard.button(QWizard::NextButton), Qt::LeftButton);
            choose(wizard, layoutFolder());
            QTimer::singleShot(0, &wizard, [&] {
                waiting = SizeThread::scansPending() && QApplication::overrideCursor()->shape() == Qt::BusyCursor;
                const QMap<QString, QWizard::WizardButton> buttons{
                    {"Next", QWizard::NextButton}, {"Back", QWizard::BackButton}, {"Cancel", QWizard::CancelButton}};
                for (const QString &action : actions.split(' '))
                    action == "Choose" ? choose(wizard, layoutFolder() + "/Other Disk é")
                                       : QTest::mouseClick(wizard.button(buttons.value(action)), Qt::LeftButton);
                waiting = waiting && SizeThread::scansPending();
                ScanGate::release();
            });
            QTest::mouseClick(wizard.button(QWizard::NextButton), Qt::LeftButton);
            pageAfterWait = wizard.currentId();
            wizard.close();
        });
        QCOMPARE(QApplication::exec(), 0);
        QVERIFY(waiting && !QApplication::overrideCursor());
        // A second Continue is ignored, and the move is decided on the finished list (without it the disks would not
        // compare); Back and Cancel are respected, and so is a destination shown anew.
        QCOMPARE(pageAfterWait, after);
        const QString subTitle = wizard.page(kPickDestPageId)->subTitle();
        QCOMPARE(subTitle, shown == "moved" ? kMoved : kStoredIn.arg(shown));
    }
};

QTEST_MAIN(tst_Wizard)
#include "tst_wizard.moc"
