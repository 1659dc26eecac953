#include "wizarddriver.h"

#include "pages/pageids.h"
#include "testsupport.h"

#include <QApplication>
#include <QCheckBox>
#include <QFileDialog>
#include <QLineEdit>
#include <QTimer>
#include <QWizard>
#include <QtTest>

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

void runScenario(const QString &layout, const QString &scenario, const QProcessEnvironment &env,
                 const CommandWrapper &wrap)
{
    const QString program = layout + QStringLiteral("/Test Installer.app/Contents/MacOS/")
                            + QFileInfo(QCoreApplication::applicationFilePath()).fileName();
    QVERIFY(copyFileTo(QCoreApplication::applicationFilePath(), program));
    QVERIFY(QFile::setPermissions(program, QFile::permissions(program) | QFile::ExeOwner));
    const QStringList command = wrap(program, {QStringLiteral("--scenario"), scenario});
    QProcess child;
    child.setProcessEnvironment(env);
    child.setProcessChannelMode(QProcess::MergedChannels);
    child.start(command.first(), command.mid(1));
    QVERIFY(child.waitForFinished(240000));
    const QString output = QString::fromLocal8Bit(child.readAll());
    // The toolkit's warnings would crowd the failures out of the message.
    QStringList report = output.split(QLatin1Char('\n'));
    report.erase(std::remove_if(report.begin(), report.end(),
                                [](const QString &line) { return line.startsWith(QLatin1String("QWARN")); }),
                 report.end());
    const QByteArray message = report.join(QLatin1Char('\n')).toLocal8Bit();
    QVERIFY2(child.exitStatus() == QProcess::NormalExit && child.exitCode() == 0, message.constData());
    QVERIFY2(output.contains(QStringLiteral("0 failed, 0 skipped")), message.constData());
}
