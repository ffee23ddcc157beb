// A platform that fails what PRODUCT_FAULT names, "base" or "configuration", and prints its log.
#include "Configuration.h"
#include "LogInterface.h"
#include "SoundManagerProxy.h"
#include "UlmoFeatureBase.h"

#include <cstdio>

// As a product's libraries do.
extern LogInterface *_logInterface;

namespace {
bool isFaulty(const char *part)
{
    if (qgetenv("PRODUCT_FAULT") != part)
        return false;
    _logInterface->EmitLogString(1, part, "/com/example/product");
    return true;
}
} // namespace

LogInterface::LogInterface(const char *objectPath)
{
    printf("log of %s\n", objectPath);
}

void LogInterface::EmitLogString(int level, const char *text, const char *objectPath)
{
    printf("%d %s %s\n", level, objectPath, text);
    fflush(stdout);
}

Configuration::Configuration(const QString &) { }

bool Configuration::isValid() const
{
    return !isFaulty("configuration");
}

int Configuration::ReadConfigValue(const QString &, const QString &, int defaultValue, bool *, bool)
{
    return defaultValue;
}

QString Configuration::ReadConfigValue(const QString &, const QString &,
                                       const QString &defaultValue, bool *, bool)
{
    return defaultValue;
}

bool Configuration::WriteConfigValue(const QString &, const QString &, const QString &, bool)
{
    return true;
}

UlmoFeatureBase::UlmoFeatureBase(const QString &) { }

bool UlmoFeatureBase::isInitialized() const
{
    return !isFaulty("base");
}

void UlmoFeatureBase::ulmoPowerOnReboot(const QString &) { }
void UlmoFeatureBase::ulmoPowerOnShutdown(const QString &) { }
void UlmoFeatureBase::ulmoPowerOnSuspend(const QString &) { }
void UlmoFeatureBase::ulmoSupOnShutdown() { }
