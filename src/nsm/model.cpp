#include "nsm/record.h"

#include "base/utf.h"

#include <objbase.h>

namespace tessel::nsm {

load_exception::load_exception(std::wstring message, std::wstring location)
    : message_(std::move(message)), location_(std::move(location)),
      what_(std::make_shared<const std::string>(utf16_to_utf8(message_)))
{
}

const char* load_exception::what() const noexcept
{
    return what_->c_str();
}

writer_base::~writer_base() = default;
reader_base::~reader_base() = default;
archive::~archive() = default;
abstract_collection::~abstract_collection() = default;

namespace details {

void throw_kind_error(reader_base& reader, const wchar_t* message)
{
    throw load_exception(message, reader.location());
}

void throw_out_of_range(reader_base& reader)
{
    throw load_exception(L"Number out of range", reader.location());
}

}  // namespace details

void value_traits<std::string>::load(reader_base& r, const archive_context&, const entry_info&, std::string& v)
{
    std::wstring wide;
    r.read_wstring(wide);
    v.clear();
    append_utf16_as_utf8(v, wide);
}

void value_traits<GUID>::save(writer_base& w, const archive_context&, std::string_view name, std::uint32_t flags,
                              const GUID& v)
{
    wchar_t text[39];
    const int length = ::StringFromGUID2(v, text, 39);
    w.write_wstring(name, flags, std::wstring_view(text, length > 0 ? length - 1 : 0));
}

void save_collection(writer_base& writer, const archive_context& context, std::string_view name, std::uint32_t flags,
                     const abstract_collection& items)
{
    const std::size_t size = items.size();
    writer.begin_array(name, flags | kind::sequence,
                       size >= unknown_count ? unknown_count : static_cast<std::uint32_t>(size));
    for (std::size_t i = 0; i < size; ++i)
        items.save_element(writer, context, i);
    writer.end_array();
}

void load_collection(reader_base& reader, const archive_context& context, abstract_collection& items)
{
    // The count is only a hint: the end flag is what ends the array, so a medium whose count
    // disagrees with its elements still loads what is there.
    items.prepare(reader.begin_array());
    // Each entry is a fresh object rather than one assigned again: that way it is built in
    // place by next_entry instead of copied, which costs a stall per entry on some cores.
    for (;;) {
        const entry_info entry = reader.next_entry();
        if (entry.at_end())
            break;
        items.load_element(reader, context, entry);
    }
    items.finish();
    reader.end_array();
}

}  // namespace tessel::nsm
