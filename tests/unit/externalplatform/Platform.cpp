// The two parts of a product's own platform that can be unusable: the one named by PRODUCT_FAULT,
// "base" or "configuration", is.
#include "Configuration.h"
#include "LogInterface.h"
#include "UlmoFeatureBase.h"

// The service's, as all of a product's libraries use it.
extern LogInterface *_logInterface;

Configuration::Configuration(const QString &) : d(nullptr) { }

Configuration::~Configuration() { }

bool Configuration::isValid() const
{
    return qgetenv("PRODUCT_FAULT") != "configuration";
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
    return qgetenv("PRODUCT_FAULT") != "base";
}

void UlmoFeatureBase::ulmoPowerOnReboot(const QString &) { }
void UlmoFeatureBase::ulmoPowerOnShutdown(const QString &) { }
void UlmoFeatureBase::ulmoPowerOnSuspend(const QString &) { }
void UlmoFeatureBase::ulmoSupOnShutdown() { }
