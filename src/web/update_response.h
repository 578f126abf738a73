#pragma once
// The update service's answer, read with the JSON archive. Member names are the service's
// and case-sensitive; a member the records do not know fails the load.

#include "nsm/record.h"

#include <cstdint>
#include <string>
#include <vector>

namespace tessel::web {

struct credit {
    std::wstring name;
    std::wstring email;
    bool operator==(const credit&) const = default;
    static constexpr auto nsm_members()
    {
        return nsm::members(nsm::member("Name", &credit::name), nsm::member("EMail", &credit::email));
    }
};

struct language_pack_offer {
    std::wstring name;
    std::wstring locale;
    std::uint64_t version = 0;
    // The packed version of the program the pack was made for.
    std::uint64_t client_version = 0;
    std::wstring url;
    std::vector<credit> credits;
    bool operator==(const language_pack_offer&) const = default;
    static constexpr auto nsm_members()
    {
        return nsm::members(nsm::member("Name", &language_pack_offer::name),
                            nsm::member("Locale", &language_pack_offer::locale),
                            nsm::member("Version", &language_pack_offer::version),
                            nsm::member("ClientVersion", &language_pack_offer::client_version),
                            nsm::member("Url", &language_pack_offer::url),
                            nsm::member("Credits", &language_pack_offer::credits));
    }
};

struct promotion {
    // Markup.
    std::wstring title;
    std::wstring url;
    nsm::date expires_on{};
    bool operator==(const promotion&) const = default;
    static constexpr auto nsm_members()
    {
        return nsm::members(nsm::member("Title", &promotion::title), nsm::member("Url", &promotion::url),
                            nsm::member("ExpiresOn", &promotion::expires_on));
    }
};

struct update_response {
    // The packed version of the newest release.
    std::uint64_t version = 0;
    // Its installer.
    std::wstring url;
    promotion promo;
    std::vector<language_pack_offer> language_packs;
    bool operator==(const update_response&) const = default;
    static constexpr auto nsm_members()
    {
        return nsm::members(nsm::member("Version", &update_response::version), nsm::member("Url", &update_response::url),
                            nsm::member("Promo", &update_response::promo),
                            nsm::member("LanguagePacks", &update_response::language_packs));
    }
};

}  // namespace tessel::web
