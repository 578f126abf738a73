#include "nsm/json_text.h"

#include "base/utf.h"

namespace tessel::nsm::details::json_text {

void append_utf8(std::wstring& out, const char* first, const char* last)
{
    const std::size_t start = out.size();
    const std::size_t count = static_cast<std::size_t>(last - first);
    out.resize(start + count);
    wchar_t* target = out.data() + start;
    for (std::size_t i = 0; i < count; ++i) {
        const auto byte = static_cast<unsigned char>(first[i]);
        if (byte >= 0x80) {
            out.resize(start + i);
            append_utf8_as_utf16(out, std::string_view(first + i, count - i));
            return;
        }
        target[i] = static_cast<wchar_t>(byte);
    }
}

__attribute__((noinline)) void grow_for_overwrite(std::wstring& out, std::size_t count)
{
    while (out.size() < count) {
        if (count - out.size() > 64 || out.capacity() - out.size() < 32) {
            out.resize(count);
            return;
        }
        out.append(32, L'\0');
    }
}

}  // namespace tessel::nsm::details::json_text
