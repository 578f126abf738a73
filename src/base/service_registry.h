#pragma once
// The process-wide registry of shared services (the HTTP client, for one): parts of the
// program ask it for a service by id instead of knowing who made it. wWinMain owns the
// registry and installs it as the process-wide one at start-up.

#include "base/com_ptr.h"

#include <unknwn.h>
#include <windows.h>

#include <utility>
#include <vector>

namespace tessel {

class service_registry {
public:
    service_registry() = default;
    service_registry(const service_registry&) = delete;
    service_registry& operator=(const service_registry&) = delete;
    ~service_registry();

    // Adds or replaces the service registered under `id`.
    void add(REFGUID id, com_ptr<IUnknown> service);
    void remove(REFGUID id) noexcept;
    // Releases every service, for example before COM is uninitialised.
    void clear() noexcept;

    // The service's interface T, or empty when nothing under `id` offers it.
    template <class T>
    [[nodiscard]] com_ptr<T> get(REFGUID id) const
    {
        return find(id).template try_query<T>();
    }

    // The registry that process_wide() answers; null uninstalls. Installing is
    // wWinMain's job, done once before anything asks.
    static void install(service_registry* registry) noexcept;
    [[nodiscard]] static service_registry* process_wide() noexcept;

private:
    [[nodiscard]] com_ptr<IUnknown> find(REFGUID id) const;

    mutable SRWLOCK lock_ = SRWLOCK_INIT;
    std::vector<std::pair<GUID, com_ptr<IUnknown>>> services_;
};

}  // namespace tessel
