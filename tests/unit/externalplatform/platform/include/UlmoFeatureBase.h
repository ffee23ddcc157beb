#ifndef PRODUCT_ULMOFEATUREBASE_H
#define PRODUCT_ULMOFEATUREBASE_H

#include <QtCore/QObject>
#include <QtCore/QString>

class UlmoFeatureBase : public QObject
{
    Q_OBJECT

public:
    UlmoFeatureBase(const QString &objectPath);
    bool isInitialized() const;
    virtual void ulmoPowerOnReboot(const QString &reason);
    virtual void ulmoPowerOnShutdown(const QString &reason);
    virtual void ulmoPowerOnSuspend(const QString &reason);
    virtual void ulmoSupOnShutdown();
};

#endif
