#include "wizarddriver.h"

#include "pages/pageids.h"
#include "workers/sizethread.h"

#include <QApplication>
#include <QCheckBox>
#include <QFileDialog>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QTimer>
#include <QWizard>
#include <QtTest>

#include <chrono>
#include <condition_variable>
#include <mutex>

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
    DialogAnswer answer;
    answer.arm(folder);
    QTest::mouseClick(wizard.page(kPickDestPageId)->findChild<QPushButton *>(), Qt::LeftButton);
    QVERIFY(answer.answered);
    QCOMPARE(answer.caption, QStringLiteral("Select Database destination"));
    QCOMPARE(answer.startFolder, QString::fromLocal8Bit(qgetenv("HOME")));
    QVERIFY(answer.dirsOnly);
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
        answeredMessageBoxes() << QStringList{box->windowTitle(), box->text(), box->informativeText(), buttons.join(','),
                                              QStringLiteral("%1x%2").arg(icon.width()).arg(icon.height())}
                                      .join('|');
        if (escape)
            QTest::keyClick(box, Qt::Key_Escape);
        else
            QTest::mouseClick(chosen ? chosen : box->buttons().value(0), Qt::LeftButton);
    });
    timer->start(20);
}

QStringList &answeredMessageBoxes()
{
    static QStringList all;
    return all;
}

void DialogAnswer::arm(const QString &folder)
{
    answered = false;
    auto *poll = new QTimer;
    QObject::connect(poll, &QTimer::timeout, [this, poll, folder] {
        auto *dialog = qobject_cast<QFileDialog *>(QApplication::activeModalWidget());
        if (!dialog)
            return;
        caption = dialog->windowTitle();
        startFolder = dialog->directory().absolutePath();
        dirsOnly = dialog->testOption(QFileDialog::ShowDirsOnly);
        answered = true;
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
