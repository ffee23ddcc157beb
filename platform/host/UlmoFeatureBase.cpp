#include "UlmoFeatureBase.h"

#include "LoginManager.h"
#include "PlatformEvents.h"

UlmoFeatureBase::UlmoFeatureBase(const QString &objectPath)
    : m_events(new PlatformEvents(this, objectPath))
{
    new LoginManager(this, objectPath);
}

UlmoFeatureBase::~UlmoFeatureBase() { }

bool UlmoFeatureBase::isInitialized() const
{
    return m_events->isInitialized();
}

void UlmoFeatureBase::ulmoPowerOnReboot(const QString &) { }
void UlmoFeatureBase::ulmoPowerOnShutdown(const QString &) { }
void UlmoFeatureBase::ulmoPowerOnSuspend(const QString &) { }
void UlmoFeatureBase::ulmoSupOnShutdown() { }
