#pragma once
// Reads every entry of an archive (the fuzz command and the JSON mutation tests) with the operation its kind suggests, so that paths a
// record would never take (unknown names, odd kinds, arrays of anything) are walked too.

#include "nsm/archive.h"

#include <cstdint>
#include <string>
#include <vector>

namespace test_support {

inline void walk_value(tessel::nsm::reader_base& reader, const tessel::nsm::entry_info& entry, int depth)
{
    namespace nsm = tessel::nsm;
    if (entry.flags & nsm::kind::object) {
        reader.begin_object();
        for (nsm::entry_info e = reader.next_entry(); !e.at_end(); e = reader.next_entry())
            walk_value(reader, e, depth + 1);
        reader.end_object();
    } else if (entry.flags & nsm::kind::boolean) {
        reader.read_bool();
    } else if (entry.flags & nsm::kind::guid) {
        reader.read_guid();
    } else if (entry.flags & nsm::kind::string) {
        if (depth % 3 == 0) {
            reader.read_time();
        } else if (depth % 3 == 1) {
            std::vector<std::uint8_t> data(reader.binary_size());
            reader.read_binary(data.data(), data.size());
        } else {
            std::wstring text;
            reader.read_wstring(text);
        }
    } else if (entry.flags & nsm::kind::sequence) {
        reader.begin_array();
        for (nsm::entry_info e = reader.next_entry(); !e.at_end(); e = reader.next_entry())
            walk_value(reader, e, depth + 1);
        reader.end_array();
    } else if (entry.flags & nsm::kind::number) {
        if (depth % 2)
            reader.read_int64();
        else
            reader.read_double();
    }
}

}  // namespace test_support
