#include "NBConfigure.h"

#include <QHash>
#include <QReadWriteLock>

namespace {
QReadWriteLock lock;
QHash<int, QString> attributes;
} // namespace

QString NBConfigure::getQStringAttribute(int attribute)
{
    QReadLocker locker(&lock);
    return attributes.value(attribute);
}

void NBConfigure::setQStringAttribute(int attribute, const QString& value)
{
    QWriteLocker locker(&lock);
    attributes.insert(attribute, value);
}
