#pragma once
// The update service's answer as records, and a realistic document of it; shared by the
// JSON tests and the JSON benchmark.

#include "nsm/record.h"
#include "web/update_response.h"

#include <cstdint>
#include <string>
#include <vector>

namespace nsm_test {

namespace nsm = tessel::nsm;

// The update check's own records.
using credit = tessel::web::credit;
using language_pack = tessel::web::language_pack_offer;
using promotion = tessel::web::promotion;
using update_response = tessel::web::update_response;

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
