#include "windows/SLFCefWindowRepresentation.h"

#include <cstdio>

SLFCefWindowRepresentation::SLFCefWindowRepresentation()
    : m_repliesByReceiverLookupTable(std::make_shared<const ReplyTable>())
{
}

SLFCefWindowRepresentation::~SLFCefWindowRepresentation() = default;

std::string SLFCefWindowRepresentation::lookupKeyForURL(const std::string& url, NSSize size, double framerate)
{
    char rate[64];
    snprintf(rate, sizeof rate, "%.2f", framerate);
    return url + "_" + NSStringFromSize(size) + "@" + rate;
}

std::string SLFCefWindowRepresentation::uniqueLookupKey() const
{
    return lookupKeyForURL(url(), size(), framerate());
}

std::string SLFCefWindowRepresentation::debugDescription() const
{
    char head[96];
    snprintf(head, sizeof head, "<SLFCefWindowRepresentation: %p> BrowserID:%d URL:", static_cast<const void*>(this),
             browserID());
    char rate[64];
    snprintf(rate, sizeof rate, " Framerate:%.2f", framerate());
    const std::string address = url();
    return head + (address.empty() ? std::string("(null)") : address) + " Size:" + NSStringFromSize(size()) + rate;
}

void SLFCefWindowRepresentation::addReceiverProxiesObject(const SLFCefCallbackProxyRef& proxy, SLFCefReplyBlock reply)
{
    if (!proxy)
        return;
    std::lock_guard<std::recursive_mutex> monitor(m_lock);
    std::shared_ptr<const ReplyTable> oldTable;
    SLFCefReceiverListRef oldList;
    {
        std::lock_guard<std::mutex> guard(m_propertyLock);
        oldTable = m_repliesByReceiverLookupTable;
        oldList = m_receiverProxies;
    }
    auto table = std::make_shared<ReplyTable>(*oldTable);
    (*table)[proxy.get()] = {proxy, std::move(reply)};
    auto list = oldList ? std::make_shared<SLFCefReceiverList>(*oldList) : std::make_shared<SLFCefReceiverList>();
    list->push_back(proxy);
    std::lock_guard<std::mutex> guard(m_propertyLock);
    m_repliesByReceiverLookupTable = std::move(table);
    m_receiverProxies = std::move(list);
}

void SLFCefWindowRepresentation::removeReceiverProxiesObject(const SLFCefCallbackProxyRef& proxy)
{
    if (!proxy)
        return;
    std::lock_guard<std::recursive_mutex> monitor(m_lock);
    std::shared_ptr<const ReplyTable> oldTable;
    SLFCefReceiverListRef oldList;
    {
        std::lock_guard<std::mutex> guard(m_propertyLock);
        oldTable = m_repliesByReceiverLookupTable;
        oldList = m_receiverProxies;
    }
    auto table = std::make_shared<ReplyTable>(*oldTable);
    // The removed reply may hold the last reference to a pending request; it
    // is released below, outside the property lock.
    ReplyTable::node_type removed = table->extract(proxy.get());
    auto list = std::make_shared<SLFCefReceiverList>();
    if (oldList) {
        for (const auto& receiver : *oldList) {
            if (receiver != proxy)
                list->push_back(receiver);
        }
    }
    std::lock_guard<std::mutex> guard(m_propertyLock);
    m_repliesByReceiverLookupTable = std::move(table);
    m_receiverProxies = std::move(list);
}

SLFCefReplyBlock SLFCefWindowRepresentation::replyForReceiverProxy(const SLFCefCallbackProxyRef& proxy) const
{
    std::shared_ptr<const ReplyTable> table;
    {
        std::lock_guard<std::mutex> guard(m_propertyLock);
        table = m_repliesByReceiverLookupTable;
    }
    auto entry = table->find(proxy.get());
    return entry == table->end() ? SLFCefReplyBlock() : entry->second.second;
}

SLFCefReceiverListRef SLFCefWindowRepresentation::receiverProxies() const
{
    return LockedGet(m_receiverProxies);
}

int SLFCefWindowRepresentation::browserID() const
{
    return LockedGet(m_browserID);
}

void SLFCefWindowRepresentation::setBrowserID(int browserID)
{
    LockedSet(m_browserID, browserID);
}

std::string SLFCefWindowRepresentation::url() const
{
    return LockedGet(m_url);
}

void SLFCefWindowRepresentation::setUrl(const std::string& url)
{
    LockedSet(m_url, url);
}

double SLFCefWindowRepresentation::framerate() const
{
    return LockedGet(m_framerate);
}

void SLFCefWindowRepresentation::setFramerate(double framerate)
{
    LockedSet(m_framerate, framerate);
}

std::vector<std::string> SLFCefWindowRepresentation::permittedFileURLStrings() const
{
    return LockedGet(m_permittedFileURLStrings);
}

void SLFCefWindowRepresentation::setPermittedFileURLStrings(const std::vector<std::string>& strings)
{
    LockedSet(m_permittedFileURLStrings, strings);
}

SLFCefDataRef SLFCefWindowRepresentation::settingsData() const
{
    return LockedGet(m_settingsData);
}

void SLFCefWindowRepresentation::setSettingsData(SLFCefDataRef data)
{
    LockedSet(m_settingsData, std::move(data));
}

bool SLFCefWindowRepresentation::updating() const
{
    return LockedGet(m_updating);
}

void SLFCefWindowRepresentation::setUpdating(bool updating)
{
    LockedSet(m_updating, updating);
}

bool SLFCefWindowRepresentation::exchangeUpdating(bool updating)
{
    std::lock_guard<std::mutex> guard(m_propertyLock);
    bool previous = m_updating;
    m_updating = updating;
    return previous;
}
