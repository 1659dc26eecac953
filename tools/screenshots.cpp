// Walks the installer's wizard with the keyboard alone, as a person would, and
// saves a picture of every page and message box on the way:
//
//   veld-screenshots OUTDIR DESTPARENT
//
// It accepts the agreement, takes the source found beside the bundle once it
// is measured, pictures the default destination, then chooses DESTPARENT in
// the folder dialog and installs there. It must run from the bundle's
// Contents/MacOS folder, as the installer does; scripts/run.sh --screenshots
// puts it there. It prints each file's path as it saves it, and exits 0 once
// the wizard is done, 1 when a step does not come within two minutes.

#include "app/veld_installer.h"
#include "workers/sizethread.h"

#include <QApplication>
#include <QCheckBox>
#include <QDir>
#include <QElapsedTimer>
#include <QFileDialog>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QScreen>
#include <QTest>
#include <QTimer>
#include <QWindow>

#include <cstdio>
#include <functional>

namespace {

QDir sOut;
int sShots = 0;

void save(QWidget *window, const QString &name)
{
    // Long enough for the window system to show what was painted.
    QTest::qWait(200);
    const QString file = sOut.filePath(QStringLiteral("%1-%2.png").arg(++sShots, 2, 10, QLatin1Char('0')).arg(name));
    window->windowHandle()->screen()->grabWindow(window->winId()).save(file);
    std::printf("%s\n", qPrintable(file));
    std::fflush(stdout);
}

void press(Qt::Key key)
{
    if (QWindow *window = QGuiApplication::focusWindow())
        QTest::keyClick(window, key);
}

bool waitFor(const std::function<bool()> &done)
{
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() > 120000)
            return false;
        QTest::qWait(20);
    }
    return true;
}

// Without a window manager (Xvfb) nobody else gives the window the keyboard,
// at the start or when a dialog closes.
bool takeKeyboard(QWidget &window)
{
    window.activateWindow();
    return QTest::qWaitForWindowActive(&window);
}

// Tab until target has the focus, as a person would; false when a whole round never reaches it.
bool tabTo(QWidget *target)
{
    for (int step = 0; step < 30 && QApplication::focusWidget() != target; ++step)
        press(Qt::Key_Tab);
    return QApplication::focusWidget() == target;
}

// Modal windows run loops of their own, so they are answered from a timer:
// the folder dialog gets folder typed into it, a message box its default button.
void answerModalWindows(const QString &folder)
{
    auto *poll = new QTimer(qApp);
    QObject::connect(poll, &QTimer::timeout, [folder] {
        QWidget *modal = QApplication::activeModalWidget();
        if (!modal || modal->property("answered").toBool() || !modal->isVisible())
            return;
        modal->setProperty("answered", true);
        if (qobject_cast<QFileDialog *>(modal)) {
            QTest::keyClicks(QApplication::focusWidget(), folder);
            save(modal, QStringLiteral("destination-dialog"));
            press(Qt::Key_Return);
        } else if (qobject_cast<QMessageBox *>(modal)) {
            save(modal, QStringLiteral("message"));
            press(Qt::Key_Return);
        }
    });
    poll->start(50);
}

bool walk(VELD_Installer &wizard, const QString &destParent)
{
    wizard.show();
    if (!QTest::qWaitForWindowExposed(&wizard) || !takeKeyboard(wizard))
        return false;
    QWizardPage *agreement = wizard.currentPage();
    if (!tabTo(agreement->findChild<QCheckBox *>()))
        return false;
    press(Qt::Key_Space);
    save(&wizard, QStringLiteral("agreement"));
    press(Qt::Key_Return);

    if (!SizeThread::waitForScans())
        return false;
    save(&wizard, QStringLiteral("source"));
    press(Qt::Key_Return);

    QWizardPage *destination = wizard.currentPage();
    save(&wizard, QStringLiteral("destination"));
    if (!tabTo(destination->findChild<QPushButton *>()))
        return false;
    answerModalWindows(destParent);
    press(Qt::Key_Space);
    if (!takeKeyboard(wizard))
        return false;
    save(&wizard, QStringLiteral("destination-chosen"));
    press(Qt::Key_Return);

    if (!waitFor([&] { return wizard.currentPage() != destination; }))
        return false;
    save(&wizard, QStringLiteral("installation"));
    if (!waitFor([&] { return wizard.button(QWizard::FinishButton)->isEnabled(); }))
        return false;
    if (!takeKeyboard(wizard))   // a message box may have had it
        return false;
    save(&wizard, QStringLiteral("outcome"));
    press(Qt::Key_Return);
    return waitFor([&] { return !wizard.isVisible(); });
}

} // namespace

int main(int argc, char **argv)
{
    QApplication app(argc, argv);
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s OUTDIR DESTPARENT\n", argv[0]);
        return 2;
    }
    sOut.setPath(QString::fromLocal8Bit(argv[1]));
    VELD_Installer wizard;
    install_wizard = &wizard;
    if (!walk(wizard, QString::fromLocal8Bit(argv[2]))) {
        std::fprintf(stderr, "veld-screenshots: the wizard did not reach the next step; the last picture shows where it stopped\n");
        save(&wizard, QStringLiteral("stopped"));
        return 1;
    }
    return 0;
}
