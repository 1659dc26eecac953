#include "eulapage.h"

#include "pageids.h"

#include "platform/installpath.h"
#include "platform/texts.h"

#include <QCheckBox>
#include <QLabel>
#include <QTextBrowser>
#include <QUrl>
#include <QVBoxLayout>

namespace {

const char kAgreementFile[] = "/Contents/Resources/LicenseAgreement.html";
const char kAcceptHint[] = "If you accept the terms of the agreement, click the check box below.  You must accept "
                           "the agreement to install the Quorvan Spectra and Properties Database.";
const char kAcceptText[] = "I accept the terms in the License Agreement";

} // namespace

EulaPage::EulaPage(QWidget *parent)
    : QWizardPage(parent)
{
    setTitle(tr(kWelcomeTitle));

    // A missing file leaves the browser empty; the page works the same.
    auto *browser = new QTextBrowser;
    const std::string agreement = GetInstallPath() + kAgreementFile;
    browser->setSource(QUrl(QString::fromUtf8(agreement.c_str())));

    auto *hint = new QLabel(QString::fromLatin1(kAcceptHint));
    hint->setWordWrap(true);

    acceptBox = new QCheckBox(QString::fromLatin1(kAcceptText));
    acceptBox->setCheckState(Qt::Unchecked);
    acceptBox->setChecked(false);
    connect(acceptBox, &QCheckBox::clicked, this, &EulaPage::OnLicenseAccepted);

    auto *layout = new QVBoxLayout;
    layout->addWidget(browser);
    layout->addWidget(hint);
    layout->addWidget(acceptBox);
    setLayout(layout);
}

bool EulaPage::isComplete() const
{
    return acceptBox->isChecked();
}

int EulaPage::nextId() const
{
    return kSourcePageId;
}

void EulaPage::OnLicenseAccepted(bool)
{
    emit completeChanged();
}
