// Two of the four parts of a product's own platform. The first that the service asks for, its
// feature base, is not usable.
#include "Configuration.h"
#include "LogInterface.h"
#include "UlmoFeatureBase.h"

// The service's, as all of a product's libraries use it.
extern LogInterface *_logInterface;

Configuration::Configuration(const QString &) : d(nullptr) { }

Configuration::~Configuration() { }

bool Configuration::isValid() const
{
    return true;
}

int Configuration::ReadConfigValue(const QString &, const QString &, int number, bool *, bool)
{
    return number;
}

QString Configuration::ReadConfigValue(const QString &, const QString &, const QString &text,
                                       bool *, bool)
{
    return text;
}

bool Configuration::WriteConfigValue(const QString &, const QString &, const QString &, bool)
{
    return true;
}

UlmoFeatureBase::UlmoFeatureBase(const QString &) : m_events(nullptr)
{
    _logInterface->EmitLogString(4, "a line of the product's", "/com/example/product");
}

UlmoFeatureBase::~UlmoFeatureBase() { }

bool UlmoFeatureBase::isInitialized() const
{
    return false;
}

void UlmoFeatureBase::ulmoPowerOnReboot(const QString &) { }
void UlmoFeatureBase::ulmoPowerOnShutdown(const QString &) { }
void UlmoFeatureBase::ulmoPowerOnSuspend(const QString &) { }
void UlmoFeatureBase::ulmoSupOnShutdown() { }
