#include "wizardface.h"

#include <QPainter>
#include <QPixmap>
#include <QWizard>

// The toolkit's Classic and Modern styles give a page's subtitle a header two
// lines high, which cuts the destination page's five lines to one, and label
// their buttons "Next >" where the pages say "Continue". Its Mac style shows
// the subtitle whole above the page and labels the buttons "Go Back",
// "Continue" and "Done", as on macOS, but paints the artwork under the page.
// So this face takes the Mac style and puts the artwork in a strip of its own
// beside the pages.

namespace {

const int kStripWidth = 190;
// The opening size, which every page keeps: room to read the agreement, and
// the destination's whole subtitle with a long folder name on one line.
const QSize kWindowSize(760, 500);

// The artwork at the strip's top; below it, the colour of its bottom edge, to
// whatever height the window gives the strip.
class ArtworkStrip : public QWidget
{
public:
    explicit ArtworkStrip(const QPixmap &artwork)
        : m_artwork(artwork)
    {
        setFixedWidth(kStripWidth);
        const QImage image = artwork.toImage();
        if (!image.isNull())
            m_fill = image.pixelColor(0, image.height() - 1);
    }

protected:
    void paintEvent(QPaintEvent *) override
    {
        QPainter painter(this);
        painter.fillRect(rect(), m_fill);
        // Scaled as it is drawn: the toolkit's smooth scaling of a whole image would start threads of its own.
        if (!m_artwork.isNull()) {
            painter.setRenderHint(QPainter::SmoothPixmapTransform);
            painter.drawPixmap(QRect(0, 0, kStripWidth, m_artwork.height() * kStripWidth / m_artwork.width()), m_artwork);
        }
    }

private:
    QPixmap m_artwork;
    QColor m_fill = Qt::black;
};

} // namespace

void dressWizard(QWizard &wizard, const QPixmap &artwork)
{
    wizard.setWizardStyle(QWizard::MacStyle);
    wizard.setSideWidget(new ArtworkStrip(artwork));
    wizard.resize(kWindowSize);
}
