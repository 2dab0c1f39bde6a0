#include "NBConfigure.h"

#include <QHash>
#include <mutex>
#include <shared_mutex>

namespace {
std::shared_mutex lock;
QHash<int, QString> attributes;
} // namespace

QString NBConfigure::getQStringAttribute(int attribute)
{
    const std::shared_lock locker(lock);
    return attributes.value(attribute);
}

void NBConfigure::setQStringAttribute(int attribute, const QString& value)
{
    const std::unique_lock locker(lock);
    attributes.insert(attribute, value);
}
