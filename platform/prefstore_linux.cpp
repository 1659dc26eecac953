#include "prefstore.h"

#include <QByteArray>
#include <QSettings>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <cstdlib>
#include <pwd.h>
#include <unistd.h>

namespace {

const size_t kValueBufferSize = 4096;

QString homeFolder()
{
    const char *home = getenv("HOME");
    if (home && *home)
        return QString::fromLocal8Bit(home);
    const passwd *pw = getpwuid(getuid());
    return pw ? QString::fromLocal8Bit(pw->pw_dir) : QString();
}

QString userConfigFolder()
{
    const char *dir = getenv("XDG_CONFIG_HOME");
    if (dir && *dir)
        return QString::fromLocal8Bit(dir);
    return homeFolder() + QStringLiteral("/.config");
}

QString systemConfigFolder()
{
    const char *dirs = getenv("XDG_CONFIG_DIRS");
    if (dirs && *dirs) {
        const QStringList folders = QString::fromLocal8Bit(dirs).split(QLatin1Char(':'), Qt::SkipEmptyParts);
        if (!folders.isEmpty())
            return folders.first();
    }
    return QStringLiteral("/etc/xdg");
}

// Looks key up in one domain file; false when the file does not hold it.
bool readFromFile(const QString &folder, const char *domain, const char *key, QString *value)
{
    const QString path = folder + QLatin1Char('/') + QString::fromUtf8(domain) + QStringLiteral(".conf");
    QSettings settings(path, QSettings::IniFormat);
    const QString name = QString::fromUtf8(key);
    if (!settings.contains(name))
        return false;
    const QVariant v = settings.value(name);
    // The INI format reads an unquoted value with commas as a list; it was one string.
    if (v.type() == QVariant::StringList)
        *value = v.toStringList().join(QLatin1Char(','));
    else
        *value = v.toString();
    return true;
}

} // namespace

std::string prefReadAppValue(const char *domain, const char *key)
{
    if (!domain || !*domain || !key || !*key)
        return std::string();
    QString value;
    if (!readFromFile(userConfigFolder(), domain, key, &value))
        readFromFile(systemConfigFolder(), domain, key, &value);
    const QByteArray bytes = value.toUtf8();
    if (static_cast<size_t>(bytes.size()) >= kValueBufferSize)
        return std::string();
    return std::string(bytes.constData(), static_cast<size_t>(bytes.size()));
}
