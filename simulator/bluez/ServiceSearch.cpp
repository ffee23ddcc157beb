#include "ServiceSearch.h"

#include "Context.h"
#include "Device.h"
#include "Durations.h"
#include "Uuids.h"

ServiceSearch::ServiceSearch(Context *context, Device *device)
    : m_device(device), m_timer(&context->schedule)
{
}

void ServiceSearch::schedule()
{
    if (isBrowsing())
        return;
    m_phase = Phase::Scheduled;
    m_timer.start(Durations::ReverseSearch, [this] { begin(); });
}

void ServiceSearch::linkLost()
{
    if (isUsingLink())
        stop();
}

void ServiceSearch::stop()
{
    m_phase = Phase::None;
    m_timer.stop();
}

void ServiceSearch::begin()
{
    if (m_device->isLinkUp()) {
        browse();
        return;
    }
    m_phase = Phase::Paging;
    m_device->page([this](bool up) {
        if (up)
            browse();
        else
            stop();
    });
}

void ServiceSearch::browse()
{
    m_phase = Phase::Browsing;
    m_device->linkUsersChanged();
    m_timer.start(Durations::ChannelSetup + 2 * Durations::Answer, [this] {
        m_phase = Phase::Kept;
        m_device->addUuid(Uuids::AudioSource);
        m_timer.start(Durations::SearchKept, [this] {
            stop();
            m_device->linkUsersChanged();
        });
    });
}
