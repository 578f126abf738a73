#include "base/service_registry.h"

#include <atomic>

namespace tessel {
namespace {

std::atomic<service_registry*> installed{nullptr};

class exclusive_lock {
public:
    explicit exclusive_lock(SRWLOCK& lock) noexcept : lock_(lock) { ::AcquireSRWLockExclusive(&lock_); }
    ~exclusive_lock() { ::ReleaseSRWLockExclusive(&lock_); }
    exclusive_lock(const exclusive_lock&) = delete;
    exclusive_lock& operator=(const exclusive_lock&) = delete;

private:
    SRWLOCK& lock_;
};

}  // namespace

service_registry::~service_registry()
{
    // A registry that goes away must not stay reachable.
    service_registry* self = this;
    installed.compare_exchange_strong(self, nullptr);
}

void service_registry::add(REFGUID id, com_ptr<IUnknown> service)
{
    com_ptr<IUnknown> replaced;  // released outside the lock
    exclusive_lock hold(lock_);
    for (auto& [key, value] : services_)
        if (IsEqualGUID(key, id)) {
            replaced = std::exchange(value, std::move(service));
            return;
        }
    services_.emplace_back(id, std::move(service));
}

void service_registry::remove(REFGUID id) noexcept
{
    com_ptr<IUnknown> removed;
    exclusive_lock hold(lock_);
    for (auto it = services_.begin(); it != services_.end(); ++it)
        if (IsEqualGUID(it->first, id)) {
            removed = std::move(it->second);
            services_.erase(it);
            return;
        }
}

void service_registry::clear() noexcept
{
    decltype(services_) released;
    exclusive_lock hold(lock_);
    released.swap(services_);
}

com_ptr<IUnknown> service_registry::find(REFGUID id) const
{
    ::AcquireSRWLockShared(&lock_);
    com_ptr<IUnknown> result;
    for (const auto& [key, value] : services_)
        if (IsEqualGUID(key, id)) {
            result = value;
            break;
        }
    ::ReleaseSRWLockShared(&lock_);
    return result;
}

void service_registry::install(service_registry* registry) noexcept
{
    installed.store(registry);
}

service_registry* service_registry::process_wide() noexcept
{
    return installed.load();
}

}  // namespace tessel
