#include "messagebox.h"

#include "log.h"
#include "privileges.h"
#include "texts.h"

#include <QMessageBox>
#include <QPixmap>

namespace {

// A word up to this long fits a line of the box as it is; longer ones get places to break.
const int kLongWord = 40;
const int kBreakEvery = 24;
// Five or six lines of the box; beyond that the middle goes, and the details area holds the whole.
const int kLongestShown = 240;
const QChar kBreak(0x200B);
const QChar kEllipsis(0x2026);

QString breakable(QString word, bool *cut)
{
    if (word.size() > kLongestShown) {
        word = word.left(kLongestShown / 2) + kEllipsis + word.right(kLongestShown / 2 - 1);
        *cut = true;
    }
    QString out;
    int run = 0;
    for (const QChar c : word) {
        out += c;
        if (c == QLatin1Char('/') || ++run == kBreakEvery) {
            out += kBreak;
            run = 0;
        }
    }
    return out;
}

} // namespace

QString wrappableText(const QString &text, bool *changed)
{
    QString out;
    bool cut = false, broken = false;
    for (int i = 0; i < text.size();) {
        int end = i;
        while (end < text.size() && !text.at(end).isSpace())
            ++end;
        const QString word = text.mid(i, end - i);
        if (word.size() > kLongWord) {
            out += breakable(word, &cut);
            broken = true;
        } else {
            out += word;
        }
        for (i = end; i < text.size() && text.at(i).isSpace(); ++i)
            out += text.at(i);
    }
    if (changed)
        *changed = broken || cut;
    return out;
}

void prepareMessageBox(QMessageBox &box, const QString &text)
{
    if (gSplashScreen)
        gSplashScreen->hide();
    box.setIconPixmap(QPixmap(QStringLiteral(":/images/app_64.png")));
    box.setWindowTitle(QStringLiteral("%1 Install").arg(QLatin1String(kProgramName)));
    bool changed = false;
    box.setText(wrappableText(text, &changed));
    if (changed) {
        box.setDetailedText(text);
        log_msg("messageBox: %s\n", text.toUtf8().constData());
    }
}
