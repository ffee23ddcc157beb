// A product's own feature base, the first part of its platform that the service asks for. It is not
// usable.
#include "LogInterface.h"
#include "UlmoFeatureBase.h"

// The service's, as all of a product's libraries use it.
extern LogInterface *_logInterface;

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
