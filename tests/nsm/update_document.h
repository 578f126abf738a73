#pragma once
// The update service's answer as records, and a realistic document of it; shared by the
// JSON tests and the JSON benchmark.

#include "nsm/record.h"

#include <cstdint>
#include <string>
#include <vector>

namespace nsm_test {

namespace nsm = tessel::nsm;

struct credit {
    std::wstring name;
    std::wstring email;
    bool operator==(const credit&) const = default;
    static constexpr auto nsm_members()
    {
        return nsm::members(nsm::member("Name", &credit::name), nsm::member("EMail", &credit::email));
    }
};

struct language_pack {
    std::wstring name;
    std::wstring locale;
    std::uint32_t version = 0;
    std::uint64_t client_version = 0;
    std::wstring url;
    std::vector<credit> credits;
    bool operator==(const language_pack&) const = default;
    static constexpr auto nsm_members()
    {
        return nsm::members(nsm::member("Name", &language_pack::name), nsm::member("Locale", &language_pack::locale),
                            nsm::member("Version", &language_pack::version),
                            nsm::member("ClientVersion", &language_pack::client_version),
                            nsm::member("Url", &language_pack::url), nsm::member("Credits", &language_pack::credits));
    }
};

struct promotion {
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
    std::uint64_t version = 0;
    std::wstring url;
    promotion promo;
    std::vector<language_pack> language_packs;
    bool operator==(const update_response&) const = default;
    static constexpr auto nsm_members()
    {
        return nsm::members(nsm::member("Version", &update_response::version), nsm::member("Url", &update_response::url),
                            nsm::member("Promo", &update_response::promo),
                            nsm::member("LanguagePacks", &update_response::language_packs));
    }
};

// Ten language packs with two or three translators each: about 4 KB of JSON.
inline update_response sample_update_response()
{
    struct pack_seed {
        const wchar_t* name;
        const wchar_t* locale;
    };
    static constexpr pack_seed seeds[] = {
        {L"Deutsch", L"de-DE"},          {L"Fran\u00e7ais", L"fr-FR"}, {L"Espa\u00f1ol", L"es-ES"},
        {L"Italiano", L"it-IT"},         {L"Portugu\u00eas (Brasil)", L"pt-BR"}, {L"Polski", L"pl-PL"},
        {L"\u0420\u0443\u0441\u0441\u043a\u0438\u0439", L"ru-RU"}, {L"\u65e5\u672c\u8a9e", L"ja-JP"},
        {L"\u4e2d\u6587(\u7b80\u4f53)", L"zh-CN"}, {L"T\u00fcrk\u00e7e", L"tr-TR"},
    };
    update_response response;
    response.version = 607020007;  // 6.7.2.7
    response.url = L"https://downloads.example.test/ulmora/6.7.2/ulmora-tools-setup-x64.exe";
    response.promo.title = L"[[[bSpring offer]]]: 30% off \"Ulmora Tools\" multi-seat licences \u2013 until May 31";
    response.promo.url = L"https://www.example.test/offers/spring?src=cfg&lang=en";
    response.promo.expires_on = nsm::date(nsm::days(19874));  // 2024-05-31
    int index = 0;
    for (const auto& seed : seeds) {
        language_pack pack;
        pack.name = seed.name;
        pack.locale = seed.locale;
        pack.version = 40 + index;
        pack.client_version = 607020000 + index;
        pack.url = std::wstring(L"https://downloads.example.test/ulmora/lang/") + seed.locale + L".6.7.2.lpack";
        for (int c = 0; c < 2 + index % 2; ++c) {
            credit person;
            person.name = std::wstring(L"Translator ") + seed.locale + L" #" + std::to_wstring(c + 1);
            person.email = L"translator" + std::to_wstring(c + 1) + L"." + seed.locale + L"@example.test";
            pack.credits.push_back(person);
        }
        response.language_packs.push_back(std::move(pack));
        ++index;
    }
    return response;
}

}  // namespace nsm_test
