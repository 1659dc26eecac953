#include "app/veld_installer.h"
#include "pages/conclusionpage.h"
#include "pages/eulapage.h"
#include "pages/pickdestpage.h"
#include "pages/sourcepage.h"
#include "platform/installpath.h"
#include "platform/privileges.h"
#include "platform/users.h"
#include "testsupport.h"

#include <QAbstractButton>
#include <QApplication>
#include <QCheckBox>
#include <QLabel>
#include <QResource>
#include <QTextBrowser>
#include <QtTest>

namespace {

const QString kWelcome = QStringLiteral("Welcome to the Quorvan Spectra and Properties Database Installer");

// In the parent: runs the row in a copy of this program in a bundle beside a
// small source, with the agreement file in the bundle unless told otherwise.
void runInBundle(bool agreement = true)
{
    QTemporaryDir layout;
    QVERIFY(writeFile(layout.filePath("VELDV400/sample.qventry"), "VELDV400 test data\n"));
    QVERIFY(!agreement || writeFile(layout.filePath("Wizard Test.app/Contents/Resources/LicenseAgreement.html"),
                                    fileBytes(QFileInfo(VELD_INSTALLER).path() + "/../Resources/LicenseAgreement.html")));
    runRowInChild({layout.filePath("Wizard Test.app/Contents/MacOS/tst_wizard")});
}

} // namespace

class tst_Wizard : public QObject
{
    Q_OBJECT

    QTemporaryDir m_prefs;

private slots:
    void initTestCase()
    {
        const QProcessEnvironment prefs = scratchPreferences(m_prefs.path());
        for (const char *name : {"XDG_CONFIG_HOME", "XDG_CONFIG_DIRS"})
            qputenv(name, prefs.value(name).toLocal8Bit());
    }
    // No window may outlive the test that made it.
    void cleanup() { QVERIFY(QApplication::topLevelWidgets().isEmpty()); }

    // The frame, its images (stored uncompressed), and the pages in the order agreement, source,
    // destination, installation, and back again to the agreement, which stays accepted.
    void frameAndPageOrder()
    {
        if (!inChild())
            return runInBundle();
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
        QCOMPARE(wizard.pixmap(QWizard::BackgroundPixmap).size(), QSize(615, 414));
        for (const char *image : {":/images/VELD_DVD_Artwork.png", ":/images/app_64.png", ":/images/GNX_DVD_Artwork.png"})
            QCOMPARE(QResource(image).compressionAlgorithm(), QResource::NoCompression);
        wizard.show();
        clickAcceptBox(wizard);
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

    void agreement_data()
    {
        QTest::addColumn<bool>("present");   // the agreement file in the bundle
        QTest::addColumn<int>("clicks");
        QTest::newRow("untouched") << true << 0;
        QTest::newRow("ticked, unticked") << true << 2;
        QTest::newRow("no agreement file, ticked") << false << 1;
    }

    void agreement()
    {
        QFETCH(bool, present);
        QFETCH(int, clicks);
        if (!inChild())
            return runInBundle(present);
        const QString file = QString::fromStdString(GetInstallPath()) + "/Contents/Resources/LicenseAgreement.html";
        if (!present)
            QTest::ignoreMessage(QtWarningMsg, QRegularExpression("No document for"));
        VELD_Installer wizard;
        wizard.show();
        QWizardPage *page = wizard.page(kEulaPageId);
        const auto *browser = page->findChild<QTextBrowser *>();
        QCOMPARE(browser->source().toString(), file);
        QCOMPARE(browser->toPlainText().contains("End-User License Agreement") + 2 * browser->toPlainText().isEmpty(), present ? 1 : 2);
        QCOMPARE(page->findChild<QLabel *>()->text(),
                 QStringLiteral("If you accept the terms of the agreement, click the check box below.  You must accept "
                                "the agreement to install the Quorvan Spectra and Properties Database."));
        QCOMPARE(page->findChild<QCheckBox *>()->text(), QStringLiteral("I accept the terms in the License Agreement"));
        for (int i = 0; i < clicks; ++i)
            clickAcceptBox(wizard);
        const bool accepted = clicks % 2 == 1;
        QCOMPARE(page->findChild<QCheckBox *>()->isChecked() + wizard.button(QWizard::NextButton)->isEnabled(), 2 * accepted);
        QTest::mouseClick(wizard.button(QWizard::NextButton), Qt::LeftButton);
        QCOMPARE(wizard.currentId(), accepted ? kSourcePageId : kEulaPageId);
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
        QVERIFY(installer.waitForStarted(5000));
        QTRY_VERIFY_WITH_TIMEOUT(logMessages(log).value(0).startsWith("---VELDInstaller["), 60000);
        QVERIFY(!installer.waitForFinished(500));
    }
};

QTEST_MAIN(tst_Wizard)
#include "tst_wizard.moc"
