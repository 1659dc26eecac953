#include "prefstore_os.h"

#include "authority.h"
#include "locations.h"
#include "preffile.h"

#include <QDir>
#include <QFile>

#include <cstdlib>
#include <pwd.h>
#include <unistd.h>

namespace {

QString homeFolder()
{
    const char *home = getenv("HOME");
    if (home && *home)
        return QFile::decodeName(home);
    const passwd *pw = getpwuid(getuid());
    return pw ? QFile::decodeName(pw->pw_dir) : QString();
}

QString userConfigFolder()
{
    const char *dir = getenv("XDG_CONFIG_HOME");
    if (dir && *dir)
        return QFile::decodeName(dir);
    return homeFolder() + QStringLiteral("/.config");
}

QString systemConfigFolder()
{
    return QString::fromLatin1(kSystemPreferencesFolder);
}

QString domainFile(const QString &folder, const QString &domain)
{
    return folder + QLatin1Char('/') + domain + QStringLiteral(".conf");
}

} // namespace

bool osPrefCopyValue(PrefSearch search, const QString &domain, const QString &key, QString *value)
{
    if (domain.isEmpty() || key.isEmpty())
        return false;
    if (search == PrefSearch::Application && prefFileRead(domainFile(userConfigFolder(), domain), key, value))
        return true;
    return prefFileRead(domainFile(systemConfigFolder(), domain), key, value);
}

bool osPrefSetAppValue(const QString &domain, const QString &key, const QString *value)
{
    if (domain.isEmpty())
        return false;
    const QString folder = userConfigFolder();
    if (!QDir().mkpath(folder))
        return false;
    return prefFileWrite(QFile::encodeName(domainFile(folder, domain)).toStdString(), key, value).empty();
}

void osPrefAppSynchronize(const QString &)
{
    // Every read goes to the files themselves: there is no cached view to refresh.
}

std::string osUserPreferencesFolder()
{
    return QFile::encodeName(userConfigFolder()).toStdString();
}

std::string osSystemPreferencesFolder()
{
    return std::string(kSystemPreferencesFolder) + "/";
}

std::string osDefaultsTool()
{
    return authorityHelperFolder() + "/veld-defaults";
}
