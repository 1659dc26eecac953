#include "prefstore.h"

#include "prefstore_os.h"

#include <QTextCodec>

#include <vector>

namespace {

const size_t kValueBufferSize = 4096;

QTextCodec *macRoman()
{
    static QTextCodec *const codec = QTextCodec::codecForName("Apple Roman");
    return codec;
}

QByteArray readValue(PrefSearch search, const QString &domain, const QString &key)
{
    QString value;
    if (!osPrefCopyValue(search, domain, key, &value))
        return QByteArray();
    return macRomanFromText(value, kValueBufferSize);
}

} // namespace

QByteArray macRomanFromText(const QString &text, size_t capacity)
{
    // The toolkit's codec replaces each character that Mac Roman lacks with '?'.
    const QByteArray bytes = macRoman() ? macRoman()->fromUnicode(text) : text.toLatin1();
    if (size_t(bytes.size()) + 1 > capacity)
        return QByteArray();
    return bytes;
}

QString textFromMacRoman(const char *bytes)
{
    if (!bytes)
        return QString();
    return macRoman() ? macRoman()->toUnicode(bytes) : QString::fromLatin1(bytes);
}

QByteArray MacReadGlobalDefaultSetting(const QString &domain, const QString &key)
{
    return readValue(PrefSearch::AllUsers, domain, key);
}

QByteArray MacReadLocalDefaultSetting(const QString &domain, const QString &key)
{
    return readValue(PrefSearch::Application, domain, key);
}

QByteArray MacReadAnyDefaultSetting(const QString &domain, const QString &key)
{
    const QByteArray global = MacReadGlobalDefaultSetting(domain, key);
    if (!global.isEmpty())
        return global;
    return MacReadLocalDefaultSetting(domain, key);
}

QByteArray MacReadAnyDefaultSettingCharKeys(const char *product, const char *key)
{
    return MacReadAnyDefaultSetting(QStringLiteral("com.halvorn.%1").arg(textFromMacRoman(product)),
                                    textFromMacRoman(key));
}

bool MacWriteLocalDefaultSetting(const QString &domain, const QString &key, const char *value)
{
    if (!value || !*value)
        return osPrefSetAppValue(domain, key, nullptr);
    const QString text = textFromMacRoman(value);
    return osPrefSetAppValue(domain, key, &text);
}

bool MacWriteGlobalDefaultSetting(const QString &domain, const char *key, const char *value, AuthorizationRef auth)
{
    if (!auth)
        return false;
    // The tool adds the file's ending itself.
    std::string target = osSystemPreferencesFolder() + macRomanFromText(domain, kValueBufferSize).toStdString();
    const bool write = value && *value;
    std::vector<char *> argv{const_cast<char *>(write ? "write" : "delete"), &target[0],
                             const_cast<char *>(key ? key : "")};
    if (write)
        argv.push_back(const_cast<char *>(value));
    argv.push_back(nullptr);
    const bool started = runCommandWithAuthority(auth, osDefaultsTool().c_str(), argv.data());
    osPrefAppSynchronize(domain);
    return started;
}

std::string userPreferencesFolder()
{
    return osUserPreferencesFolder();
}

std::string prefReadAppValue(const char *domain, const char *key)
{
    if (!domain || !*domain || !key || !*key)
        return std::string();
    QString value;
    if (!osPrefCopyValue(PrefSearch::Application, QString::fromUtf8(domain), QString::fromUtf8(key), &value))
        return std::string();
    const QByteArray bytes = value.toUtf8();
    if (size_t(bytes.size()) >= kValueBufferSize)
        return std::string();
    return bytes.toStdString();
}
