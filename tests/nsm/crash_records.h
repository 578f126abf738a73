#pragma once
// The two settings records of the crash test: the one on disk before a save, and the one
// the save writes.

#include "nsm/app_settings.h"

namespace nsm_test {

inline app_settings record_before_save()
{
    app_settings record;
    record.language = L"de";
    record.hide_disconnected = true;
    record.promo = {L"Old offer", L"https://example.test/old", tessel::nsm::date(tessel::nsm::days(19000))};
    return record;
}

inline app_settings record_being_saved()
{
    app_settings record;
    record.language = L"fr";
    record.collapse_all = true;
    record.check_for_updates = false;
    record.promo = {L"New offer", L"https://example.test/new", tessel::nsm::date(tessel::nsm::days(20000))};
    return record;
}

}  // namespace nsm_test
