#include "localization/language_pack.h"

#include "base/unique_handle.h"
#include "base/utf.h"
#include "format/ts_printf.h"
#include "localization/string_id.h"

#include <chrono>

namespace tessel {

namespace {

class exclusive_lock {
public:
    explicit exclusive_lock(SRWLOCK& lock) noexcept : lock_(lock) { AcquireSRWLockExclusive(&lock_); }
    ~exclusive_lock() { ReleaseSRWLockExclusive(&lock_); }
    exclusive_lock(const exclusive_lock&) = delete;
    exclusive_lock& operator=(const exclusive_lock&) = delete;

private:
    SRWLOCK& lock_;
};

std::optional<std::span<const std::byte>> find_strings_resource(HMODULE module, int resource_id) noexcept
{
    HRSRC resource = FindResourceW(module, MAKEINTRESOURCEW(resource_id), L"STRINGS");
    if (!resource)
        return std::nullopt;
    const DWORD size = SizeofResource(module, resource);
    HGLOBAL loaded = LoadResource(module, resource);
    const void* data = loaded ? LockResource(loaded) : nullptr;
    if (!data)
        return std::nullopt;
    return std::span<const std::byte>(static_cast<const std::byte*>(data), size);
}

}  // namespace

std::size_t LanguagePack::key_hash::operator()(const std::wstring& key) const noexcept
{
    std::uint64_t hash = 0xCBF29CE484222325ull;
    for (const wchar_t unit : key) {
        hash = (hash ^ (static_cast<std::uint16_t>(unit) & 0xFF)) * 0x100000001B3ull;
        hash = (hash ^ (static_cast<std::uint16_t>(unit) >> 8)) * 0x100000001B3ull;
    }
    return static_cast<std::size_t>(hash);
}

LanguagePack::LanguagePack(HMODULE module, int resource_id, std::shared_ptr<const LanguagePack> parent,
                           std::optional<std::span<const std::byte>> module_image, std::wstring module_name)
    : module_name_(std::move(module_name))
{
    build(find_strings_resource(module ? module : GetModuleHandleW(nullptr), resource_id), parent, module_image);
}

LanguagePack::LanguagePack(std::span<const std::byte> builtin_image, std::shared_ptr<const LanguagePack> parent,
                           std::optional<std::span<const std::byte>> module_image, std::wstring module_name)
    : module_name_(std::move(module_name))
{
    build(builtin_image, parent, module_image);
}

void LanguagePack::build(std::optional<std::span<const std::byte>> builtin_image,
                         const std::shared_ptr<const LanguagePack>& parent,
                         std::optional<std::span<const std::byte>> module_image)
{
    if (parent) {
        head_ = parent->head_;
        recording_ = parent->recording_;
    }
    if (!builtin_image)
        return;
    auto builtin = string_table::load(*builtin_image, true, head_);
    loaded_ = builtin->loaded();
    head_ = std::move(builtin);
    if (module_image)
        head_ = string_table::load(*module_image, false, head_);
}

const string_entry& LanguagePack::find(std::uint32_t id) const
{
    const string_entry* entry = head_ ? head_->find_in_chain(id) : nullptr;
    if (!entry)
        throw no_string_exception();
    return *entry;
}

std::wstring_view LanguagePack::text(std::uint32_t id) const
{
    return item(id, 0);
}

std::wstring_view LanguagePack::item(std::uint32_t id, std::size_t index) const
{
    // Item by item: a pack whose list is shorter than the built-in one (a partial
    // translation) overrides only the items it has; the rest come from further down.
    for (const string_table* table = head_.get(); table; table = table->parent().get()) {
        const string_entry* entry = table->find(id);
        if (!entry)
            continue;
        if (!entry->is_list) {
            if (index == 0)
                return entry->text;
        } else if (entry->has_item(index)) {
            return entry->items[index];
        }
    }
    throw no_string_exception();
}

std::wstring LanguagePack::text_by_key(std::wstring_view key) const
{
    if (recording_) {
        exclusive_lock guard(lock_);
        if (!corrections_.empty()) {
            if (const auto found = corrections_.find(std::wstring(key)); found != corrections_.end())
                return found->second;
        }
    }
    return std::wstring(text(string_id(key)));
}

void LanguagePack::record_correction(std::wstring key, std::wstring text)
{
    exclusive_lock guard(lock_);
    corrections_.insert_or_assign(std::move(key), std::move(text));
}

std::size_t LanguagePack::correction_count() const
{
    exclusive_lock guard(lock_);
    return corrections_.size();
}

std::wstring escape_correction(std::wstring_view text)
{
    std::wstring out;
    out.reserve(text.size());
    for (const wchar_t unit : text) {
        switch (unit) {
        case L'"':
            out += L"&quot;";
            break;
        case L'\r':
            out += L"\\r";
            break;
        case L'\n':
            out += L"\\n";
            break;
        case L'\t':
            out += L"\\t";
            break;
        case L'&':
            out += L"&amp;";
            break;
        default:
            out += unit;
        }
    }
    return out;
}

std::string LanguagePack::corrections_document() const
{
    std::wstring body = L"  <Module name=\"" + module_name_ + L"\">\r\n";
    {
        exclusive_lock guard(lock_);
        for (const auto& [key, text] : corrections_)
            body += L"    <String id=\"" + escape_correction(key) + L"\" value=\"" + escape_correction(text) + L"\"/>\r\n";
    }
    // The closing tag has no indentation; translators' tools read the files as they are.
    body += L"</Module>\r\n";
    return "<?xml version=\"1.0\" encoding=\"utf-8\"?>\r\n<Corrections>\r\n" + utf16_to_utf8(body) +
           "</Corrections>\r\n";
}

std::wstring LanguagePack::corrections_file_name(std::wstring_view base_path, const std::tm& local_time)
{
    return ts_printf::format(L"{0}.{1t(%Y%m%d-%H%M%S)}.xml", base_path, local_time);
}

int LanguagePack::export_corrections(std::wstring_view base_path) const
{
    const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    std::tm local{};
    if (localtime_s(&local, &now) != 0)
        return -1;
    return export_corrections(base_path, local);
}

int LanguagePack::export_corrections(std::wstring_view base_path, const std::tm& local_time) const
{
    if (!recording_)
        return -1;
    const std::string document = corrections_document();
    const unique_file file(CreateFileW(corrections_file_name(base_path, local_time).c_str(), GENERIC_WRITE, 0, nullptr,
                                       CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        return -1;
    DWORD written = 0;
    if (!WriteFile(file.get(), document.data(), static_cast<DWORD>(document.size()), &written, nullptr) ||
        written != document.size())
        return -1;
    return 0;
}

}  // namespace tessel
