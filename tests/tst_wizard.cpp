#include "app/veld_installer.h"
#include "pages/conclusionpage.h"
#include "pages/eulapage.h"
#include "pages/pickdestpage.h"
#include "pages/sourcepage.h"
#include "platform/installpath.h"
#include "platform/users.h"
#include "testsupport.h"

#include <QAbstractButton>
#include <QApplication>
#include <QCheckBox>
#include <QFile>
#include <QLabel>
#include <QResource>
#include <QScopeGuard>
#include <QTextBrowser>
#include <QTimer>
#include <QtTest>

namespace {

const QString kWelcome = QStringLiteral("Welcome to the Quorvan Spectra and Properties Database Installer");

QCheckBox *acceptBox(QWizard &wizard)
{
    return wizard.page(kEulaPageId)->findChild<QCheckBox *>();
}

// A click where a user would click: on the box's indicator.
void clickAcceptBox(QWizard &wizard)
{
    QCheckBox *box = acceptBox(wizard);
    QTest::mouseClick(box, Qt::LeftButton, Qt::NoModifier, QPoint(6, box->height() / 2));
}

bool nextEnabled(QWizard &wizard)
{
    return wizard.button(QWizard::NextButton)->isEnabled();
}

} // namespace

class tst_Wizard : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanup();

    void pagesAndIds();
    void displayOrderForwardAndBack();
    void titleAndArtwork();
    void setWindowTitle_data();
    void setWindowTitle();
    void resources_data();
    void resources();
    void administratorsGroupId();
    void endsWithStatusZero_data();
    void endsWithStatusZero();

    void agreementShown();
    void agreementGating_data();
    void agreementGating();
    void agreementMissing();

private:
    ScratchPreferences m_prefs;
};

void tst_Wizard::initTestCase()
{
    m_prefs.applyToThisProcess();
}

void tst_Wizard::cleanup()
{
    // No window may outlive the test that made it.
    QVERIFY(QApplication::topLevelWidgets().isEmpty());
}

void tst_Wizard::pagesAndIds()
{
    VELD_Installer wizard;
    QCOMPARE(wizard.pageIds(), (QList<int>{0, 1, 2, 3}));
    QCOMPARE(wizard.startId(), 1);
    QVERIFY(qobject_cast<SourcePage *>(wizard.page(0)));
    QVERIFY(qobject_cast<EulaPage *>(wizard.page(1)));
    QVERIFY(qobject_cast<PickDestPage *>(wizard.page(2)));
    QVERIFY(qobject_cast<ConclusionPage *>(wizard.page(3)));
    QCOMPARE(wizard.page(0)->nextId(), 2);
    QCOMPARE(wizard.page(1)->nextId(), 0);
    QCOMPARE(wizard.page(2)->nextId(), 3);
    QCOMPARE(wizard.page(3)->nextId(), -1);
}

void tst_Wizard::displayOrderForwardAndBack()
{
    VELD_Installer wizard;
    wizard.show();
    QCOMPARE(wizard.currentId(), 1);
    QVERIFY(!nextEnabled(wizard));
    clickAcceptBox(wizard);

    QList<int> shown{wizard.currentId()};
    while (wizard.button(QWizard::NextButton)->isVisible() && nextEnabled(wizard)) {
        QTest::mouseClick(wizard.button(QWizard::NextButton), Qt::LeftButton);
        shown << wizard.currentId();
    }
    QCOMPARE(shown, (QList<int>{1, 0, 2, 3}));
    QVERIFY(wizard.button(QWizard::FinishButton)->isVisible());

    QList<int> back;
    while (wizard.button(QWizard::BackButton)->isEnabled()) {
        QTest::mouseClick(wizard.button(QWizard::BackButton), Qt::LeftButton);
        back << wizard.currentId();
    }
    QCOMPARE(back, (QList<int>{2, 0, 1}));
    QVERIFY(acceptBox(wizard)->isChecked());
    QVERIFY(nextEnabled(wizard));
}

void tst_Wizard::titleAndArtwork()
{
    VELD_Installer wizard;
    QCOMPARE(wizard.windowTitle(), kWelcome);
    QCOMPARE(wizard.page(kEulaPageId)->title(), kWelcome);
    QCOMPARE(wizard.page(kSourcePageId)->title(), kWelcome);
    QCOMPARE(wizard.pixmap(QWizard::BackgroundPixmap).size(), QSize(615, 414));
}

void tst_Wizard::setWindowTitle_data()
{
    QTest::addColumn<QByteArray>("title");
    QTest::addColumn<QString>("shown");
    QTest::newRow("other") << QByteArray("Another title") << QStringLiteral("Another title");
    QTest::newRow("utf-8") << QByteArray("Datenbank \xc3\xbc\xe2\x82\xac") << QStringLiteral("Datenbank \u00fc\u20ac");
    QTest::newRow("empty restores") << QByteArray() << kWelcome;
}

void tst_Wizard::setWindowTitle()
{
    QFETCH(QByteArray, title);
    QFETCH(QString, shown);
    VELD_Installer wizard;
    wizard.setWindowTitle(QStringLiteral("something else"));
    wizard.SetWindowTitle(title.toStdString());
    QCOMPARE(wizard.windowTitle(), shown);
}

void tst_Wizard::resources_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QSize>("size");
    QTest::newRow("artwork") << ":/images/VELD_DVD_Artwork.png" << QSize(615, 414);
    QTest::newRow("icon") << ":/images/app_64.png" << QSize(64, 64);
    QTest::newRow("second artwork") << ":/images/GNX_DVD_Artwork.png" << QSize(615, 414);
}

void tst_Wizard::resources()
{
    QFETCH(QString, path);
    QFETCH(QSize, size);
    const QResource resource(path);
    QVERIFY(resource.isValid());
    QCOMPARE(resource.compressionAlgorithm(), QResource::NoCompression);
    QVERIFY(QByteArray(reinterpret_cast<const char *>(resource.data()), 8) == QByteArray("\x89PNG\r\n\x1a\n"));
    QCOMPARE(QImage(path).size(), size);
}

void tst_Wizard::administratorsGroupId()
{
    gAdminGid = 12345;
    VELD_Installer wizard;
    QCOMPARE(gAdminGid, getGroupId(adminGroupName()));
}

void tst_Wizard::endsWithStatusZero_data()
{
    QTest::addColumn<QString>("how");
    QTest::newRow("Cancel button") << "cancel";
    QTest::newRow("window closed") << "close";
    QTest::newRow("Escape key") << "escape";
    QTest::newRow("Cancel on a later page") << "cancel-later";
}

// The event loop that main runs ends with status 0 however the user leaves.
void tst_Wizard::endsWithStatusZero()
{
    QFETCH(QString, how);
    VELD_Installer wizard;
    install_wizard = &wizard;
    auto forget = qScopeGuard([] { install_wizard = nullptr; });
    QCOMPARE(GetMainWindow(), static_cast<QWidget *>(&wizard));
    wizard.show();
    QVERIFY(QTest::qWaitForWindowExposed(&wizard));

    QTimer::singleShot(0, &wizard, [&] {
        if (how == QLatin1String("cancel")) {
            QTest::mouseClick(wizard.button(QWizard::CancelButton), Qt::LeftButton);
        } else if (how == QLatin1String("close")) {
            wizard.close();
        } else if (how == QLatin1String("escape")) {
            QTest::keyClick(&wizard, Qt::Key_Escape);
        } else {
            clickAcceptBox(wizard);
            wizard.next();
            wizard.next();
            QTest::mouseClick(wizard.button(QWizard::CancelButton), Qt::LeftButton);
        }
    });
    // A loop that does not end fails the test instead of hanging it.
    QTimer watchdog;
    watchdog.setSingleShot(true);
    connect(&watchdog, &QTimer::timeout, qApp, [] { QCoreApplication::exit(99); });
    watchdog.start(10000);

    QCOMPARE(QApplication::exec(), 0);
    QVERIFY(!wizard.isVisible());
}

void tst_Wizard::agreementShown()
{
    VELD_Installer wizard;
    QWizardPage *page = wizard.page(kEulaPageId);
    const auto *browser = page->findChild<QTextBrowser *>();
    QVERIFY(browser);
    QCOMPARE(browser->source().scheme(), QString());
    QCOMPARE(browser->source().path(),
             QString::fromStdString(GetInstallPath()) + QStringLiteral("/Contents/Resources/LicenseAgreement.html"));
    QVERIFY(browser->toPlainText().contains(QLatin1String("End-User License Agreement")));

    const auto *label = page->findChild<QLabel *>();
    QCOMPARE(label->text(), QStringLiteral("If you accept the terms of the agreement, click the check box below.  You must "
                                           "accept the agreement to install the Quorvan Spectra and Properties Database."));
    QVERIFY(label->wordWrap());
    QCOMPARE(acceptBox(wizard)->text(), QStringLiteral("I accept the terms in the License Agreement"));
    QVERIFY(!acceptBox(wizard)->isChecked());
}

void tst_Wizard::agreementGating_data()
{
    QTest::addColumn<int>("clicks");
    QTest::addColumn<bool>("enabled");
    QTest::newRow("untouched") << 0 << false;
    QTest::newRow("ticked") << 1 << true;
    QTest::newRow("ticked, unticked") << 2 << false;
    QTest::newRow("ticked again") << 3 << true;
}

void tst_Wizard::agreementGating()
{
    QFETCH(int, clicks);
    QFETCH(bool, enabled);
    VELD_Installer wizard;
    wizard.show();
    for (int i = 0; i < clicks; ++i)
        clickAcceptBox(wizard);
    QCOMPARE(acceptBox(wizard)->isChecked(), enabled);
    QCOMPARE(nextEnabled(wizard), enabled);
    QCOMPARE(wizard.page(kEulaPageId)->isComplete(), enabled);
}

void tst_Wizard::agreementMissing()
{
    const QString file = QString::fromStdString(GetInstallPath()) + QStringLiteral("/Contents/Resources/LicenseAgreement.html");
    const QString aside = file + QStringLiteral(".aside");
    QVERIFY(QFile::rename(file, aside));
    auto restore = qScopeGuard([&] { QFile::rename(aside, file); });

    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("No document for")));
    VELD_Installer wizard;
    wizard.show();
    QVERIFY(wizard.page(kEulaPageId)->findChild<QTextBrowser *>()->toPlainText().isEmpty());
    QVERIFY(!nextEnabled(wizard));
    clickAcceptBox(wizard);
    QVERIFY(nextEnabled(wizard));
    wizard.next();
    QCOMPARE(wizard.currentId(), kSourcePageId);
}

QTEST_MAIN(tst_Wizard)
#include "tst_wizard.moc"
