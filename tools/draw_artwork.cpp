// Draws the installer artwork PNGs into the folder given as the only argument.
// Output is deterministic for a given Qt build and font set: no clock, no
// randomness, and pixel-sized fonts so the screen DPI cannot change the layout.
// Run with QT_QPA_PLATFORM=offscreen (or -platform offscreen) on headless hosts.

#include <QDir>
#include <QFont>
#include <QFontMetrics>
#include <QGuiApplication>
#include <QImage>
#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>
#include <QRadialGradient>
#include <QTextStream>
#include <algorithm>
#include <cmath>

namespace {

struct Scheme {
    QString title;
    QString subtitle;
    QColor top, bottom, glow, line, accent;
};

// A fixed set of peaks keeps the plot recognisable as a spectrum and identical
// on every run; the values are arbitrary but chosen to look plausible.
double spectrum(double x)
{
    static const struct { double centre, width, height; } peaks[] = {
        {0.10, 0.012, 0.35}, {0.18, 0.020, 0.55}, {0.27, 0.008, 0.90}, {0.33, 0.015, 0.40},
        {0.45, 0.025, 0.65}, {0.52, 0.006, 0.75}, {0.61, 0.018, 0.30}, {0.70, 0.010, 1.00},
        {0.78, 0.030, 0.45}, {0.86, 0.009, 0.60}, {0.93, 0.014, 0.25},
    };
    double y = 0.04 + 0.03 * std::sin(x * 23.0);
    for (const auto &p : peaks) {
        const double d = (x - p.centre) / p.width;
        y += p.height / (1.0 + d * d); // Lorentzian line shape
    }
    return y;
}

QPainterPath spectrumPath(const QRectF &area)
{
    QPainterPath path;
    const int steps = int(area.width()) * 2;
    for (int i = 0; i <= steps; ++i) {
        const double x = double(i) / steps;
        const QPointF pt(area.left() + x * area.width(),
                         area.bottom() - std::min(spectrum(x), 1.1) / 1.1 * area.height());
        i == 0 ? path.moveTo(pt) : path.lineTo(pt);
    }
    return path;
}

QFont fontFitting(const QString &text, int pixelSize, int maxWidth, bool bold)
{
    QFont f(QStringLiteral("DejaVu Sans"));
    f.setBold(bold);
    for (; pixelSize > 6; --pixelSize) {
        f.setPixelSize(pixelSize);
        if (QFontMetrics(f).horizontalAdvance(text) <= maxWidth)
            break;
    }
    return f;
}

QImage drawArtwork(const Scheme &s)
{
    QImage img(615, 414, QImage::Format_ARGB32_Premultiplied);
    QPainter p(&img);
    p.setRenderHint(QPainter::Antialiasing);

    QLinearGradient bg(0, 0, 0, img.height());
    bg.setColorAt(0, s.top);
    bg.setColorAt(1, s.bottom);
    p.fillRect(img.rect(), bg);

    QRadialGradient glow(QPointF(470, 120), 320);
    glow.setColorAt(0, s.glow);
    glow.setColorAt(1, Qt::transparent);
    p.fillRect(img.rect(), glow);

    // Faint grid behind the plot suggests a chart without competing with the text.
    const QRectF plot(30, 190, 555, 150);
    p.setPen(QPen(QColor(255, 255, 255, 22), 1));
    for (int x = int(plot.left()); x <= plot.right(); x += 37)
        p.drawLine(QPointF(x, plot.top() - 20), QPointF(x, plot.bottom()));
    for (int y = int(plot.bottom()); y >= plot.top() - 20; y -= 30)
        p.drawLine(QPointF(plot.left(), y), QPointF(plot.right(), y));

    const QPainterPath line = spectrumPath(plot);
    QPainterPath fill = line;
    fill.lineTo(plot.bottomRight());
    fill.lineTo(plot.bottomLeft());
    fill.closeSubpath();
    QLinearGradient under(0, plot.top(), 0, plot.bottom());
    QColor c = s.line;
    c.setAlpha(130);
    under.setColorAt(0, c);
    c.setAlpha(0);
    under.setColorAt(1, c);
    p.fillPath(fill, under);
    c.setAlpha(60);
    p.strokePath(line, QPen(c, 7, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    p.strokePath(line, QPen(s.line, 2, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));

    p.setPen(Qt::white);
    p.setFont(fontFitting(s.title, 64, 555, true));
    p.drawText(QRect(30, 40, 555, 80), Qt::AlignLeft | Qt::AlignVCenter, s.title);
    p.fillRect(QRectF(32, 122, 90, 4), s.accent);
    p.setFont(fontFitting(s.subtitle, 24, 555, false));
    p.drawText(QRect(30, 132, 555, 36), Qt::AlignLeft | Qt::AlignVCenter, s.subtitle);

    p.setPen(QColor(255, 255, 255, 170));
    p.setFont(fontFitting(QStringLiteral("Halvornworks"), 16, 300, true));
    p.drawText(QRect(30, 364, 555, 30), Qt::AlignRight | Qt::AlignVCenter,
               QStringLiteral("Halvornworks"));
    return img;
}

QImage drawIcon()
{
    QImage img(64, 64, QImage::Format_ARGB32_Premultiplied);
    img.fill(Qt::transparent);
    QPainter p(&img);
    p.setRenderHint(QPainter::Antialiasing);

    QLinearGradient bg(0, 0, 0, 64);
    bg.setColorAt(0, QColor(0x2a, 0x6c, 0xd6));
    bg.setColorAt(1, QColor(0x0b, 0x1d, 0x4f));
    p.setPen(Qt::NoPen);
    p.setBrush(bg);
    p.drawRoundedRect(QRectF(2, 2, 60, 60), 13, 13);

    p.setPen(QColor(255, 255, 255, 235));
    p.setFont(fontFitting(QStringLiteral("V"), 30, 40, true));
    p.drawText(QRect(2, 4, 60, 30), Qt::AlignCenter, QStringLiteral("V"));

    const QPainterPath line = spectrumPath(QRectF(8, 34, 48, 22));
    p.strokePath(line, QPen(QColor(0x7f, 0xe3, 0xff), 2, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    return img;
}

} // namespace

int main(int argc, char **argv)
{
    QGuiApplication app(argc, argv);
    QTextStream err(stderr);
    const QStringList args = app.arguments();
    if (args.size() != 2) {
        err << "usage: draw_artwork OUTDIR   (use -platform offscreen without a display)\n";
        return 2;
    }
    const QDir dir(args.at(1));
    if (!QDir().mkpath(dir.path())) {
        err << "cannot create " << dir.path() << "\n";
        return 1;
    }

    const QString subtitle = QStringLiteral("Quorvan Spectra and Properties Database");
    const Scheme veld{QStringLiteral("VELDV400"), subtitle,
                      QColor(0x12, 0x2f, 0x78), QColor(0x04, 0x0b, 0x26), QColor(70, 140, 255, 90),
                      QColor(0x6f, 0xe0, 0xff), QColor(0xff, 0xb3, 0x30)};
    const Scheme gnx{QStringLiteral("GNX"), subtitle,
                     QColor(0x0d, 0x5c, 0x4a), QColor(0x03, 0x1c, 0x18), QColor(80, 230, 160, 80),
                     QColor(0xb8, 0xff, 0x6a), QColor(0xff, 0x70, 0x5a)};

    const struct { QString name; QImage image; } outputs[] = {
        {QStringLiteral("VELD_DVD_Artwork.png"), drawArtwork(veld)},
        {QStringLiteral("GNX_DVD_Artwork.png"), drawArtwork(gnx)},
        {QStringLiteral("app_64.png"), drawIcon()},
    };
    for (const auto &o : outputs) {
        const QString path = dir.filePath(o.name);
        if (!o.image.save(path, "PNG")) {
            err << "cannot write " << path << "\n";
            return 1;
        }
    }
    return 0;
}
