#include "Config.h"

#include <QDir>
#include <QFile>
#include <QFileDevice>
#include <QFileInfo>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QSaveFile>
#include <QStandardPaths>
#include <QUuid>

QString Config::directory()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + QStringLiteral("/nbcli");
}

QString Config::file(const QString& profile)
{
    // The default profile keeps the file of the sign-ins made before there were profiles.
    if (profile == QLatin1String("default"))
        return directory() + QStringLiteral("/session.json");
    return directory() + QStringLiteral("/profiles/") + profile + QStringLiteral(".json");
}

bool Config::isProfileName(const QString& name)
{
    static const QRegularExpression valid(QStringLiteral("^[A-Za-z0-9_][A-Za-z0-9._-]{0,63}$"));
    return valid.match(name).hasMatch();
}

QStringList Config::profiles()
{
    QStringList names;
    for (const QString& entry : QDir(directory() + QStringLiteral("/profiles"))
                                    .entryList({ QStringLiteral("*.json") }, QDir::Files, QDir::Name)) {
        const QString name = entry.chopped(5);
        if (isProfileName(name) && name != QLatin1String("default"))
            names << name;
    }
    if (QFile::exists(file(QStringLiteral("default"))))
        names.prepend(QStringLiteral("default"));
    return names;
}

Settings Config::load(const QString& profile, QString* error)
{
    Settings settings;
    QFile file(Config::file(profile));
    if (file.open(QIODevice::ReadOnly)) {
        QJsonParseError parse {};
        const QJsonObject stored = QJsonDocument::fromJson(file.readAll(), &parse).object();
        if (parse.error != QJsonParseError::NoError)
            *error = QStringLiteral("%1 is damaged (%2): run nbcli login again")
                         .arg(file.fileName(), parse.errorString());
        settings.server = stored.value("server").toString();
        settings.type = stored.value("type").toInt(1);
        settings.user = stored.value("user").toString();
        settings.session = stored.value("session").toString();
        settings.deviceUuid = stored.value("device_uuid").toString();
        settings.caFile = stored.value("cacert").toString();
        settings.insecure = stored.value("insecure").toBool();
        settings.cursors = stored.value("cursors").toObject();
    }
    if (settings.deviceUuid.isEmpty())
        settings.deviceUuid = QUuid::createUuid().toString(QUuid::WithoutBraces);
    return settings;
}

bool Config::save(const QString& profile, const Settings& settings, QString* error)
{
    const QJsonObject stored { { "server", settings.server }, { "type", settings.type },
        { "user", settings.user }, { "session", settings.session }, { "device_uuid", settings.deviceUuid },
        { "cacert", settings.caFile }, { "insecure", settings.insecure }, { "cursors", settings.cursors } };
    const QString folder = QFileInfo(Config::file(profile)).path();
    const auto ownerOnly = QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner;
    if (!QDir().mkpath(folder) || !QFile::setPermissions(directory(), ownerOnly)
        || !QFile::setPermissions(folder, ownerOnly)) {
        *error = QStringLiteral("cannot create %1").arg(folder);
        return false;
    }
    QSaveFile file(Config::file(profile));
    // The session is a credential: readable by its owner only, from the first byte on.
    if (!file.open(QIODevice::WriteOnly)
        || !file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner)
        || file.write(QJsonDocument(stored).toJson()) < 0 || !file.commit()) {
        *error = QStringLiteral("cannot write %1: %2").arg(file.fileName(), file.errorString());
        return false;
    }
    return true;
}

bool Config::remove(const QString& profile, QString* error)
{
    if (QFile::remove(file(profile)))
        return true;
    *error = QFile::exists(file(profile)) ? QStringLiteral("cannot remove %1").arg(file(profile))
                                          : QStringLiteral("no profile \"%1\"").arg(profile);
    return false;
}

int Config::parseType(const QString& text)
{
    const QString name = text.trimmed().toLower();
    if (name == QLatin1String("0") || name == QLatin1String("private"))
        return 0;
    if (name == QLatin1String("1") || name == QLatin1String("cloud") || name == QLatin1String("public"))
        return 1;
    if (name == QLatin1String("2") || name == QLatin1String("six") || name == QLatin1String("private6"))
        return 2;
    return -1;
}

QString Config::typeName(int type)
{
    switch (type) {
    case 0:
        return QStringLiteral("private");
    case 1:
        return QStringLiteral("public cloud");
    case 2:
        return QStringLiteral("private 6.0");
    }
    return QStringLiteral("unknown");
}
