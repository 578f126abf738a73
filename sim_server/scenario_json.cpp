// Scenario documents, read with tessel::nsm's JSON archive.
//
// {
//   "running": true,
//   "settings": {"endpoints": "0.0.0.0:32032", "port": 32032, "advertisement": true, "statistics": false},
//   "settings_read_delay_ms": 400, "settings_write_delay_ms": 0,
//   "devices": [{"id": "flash", "name": "Arcturus Flash 32GB", "location": "1-1", "class": "disk",
//                "description": "USB Mass Storage Device", "friendly_name": "...", "connected": true,
//                "client": "WORKSTATION-07", "needs_share_confirmation": false,
//                "instance_id": "USB\\VID_3F41&PID_2A07\\AC3200417F5E0091",
//                "hardware_ids": ["USB\\VID_3F41&PID_2A07&REV_0110", "USB\\VID_3F41&PID_2A07"],
//                "children": [{"class": "disk", "description": "Disk drive", "friendly_name": "...",
//                              "instance_id": "...", "hardware_ids": [...], "children": []}]}],
//   "shares": [{"device": "flash", "key": "secret"}],
//   "failures": [{"method": "ShareDevice", "hresult": "0x80070005", "device": "flash"}]
// }
//
// Every member is optional except a device's "id" and "name", a share's "device" and a
// failure's "method" and "hresult"; a member the server does not know is an error, so a
// misspelt name never goes unnoticed.
//
// The archive itself knows neither required members, repeated names nor which member a
// failure is in; scenario_reader, wrapped around its reader, adds those. Values that are
// not plain JSON kinds (a device class by name, an HRESULT as text or number, null for
// "unknown") have value kinds of their own below.

#include "scenario.h"

#include "base/utf.h"
#include "nsm/json_archive.h"
#include "nsm/record.h"

#include <array>
#include <set>

namespace sim_server {
namespace {

namespace nsm = tessel::nsm;

// null or missing: nothing; anything else: a T.
template <class T>
struct nullable {
    std::optional<T> value;
    bool operator==(const nullable&) const = default;
};

// A device's setup class: a name parse_device_class knows or a GUID in braces.
struct device_class {
    GUID guid = *parse_device_class(L"usb");
    bool operator==(const device_class& other) const noexcept { return IsEqualGUID(guid, other.guid) != 0; }
};

// "0x80070005", "E_ACCESSDENIED", "-2147024891" or the same as a JSON number.
struct hresult_value {
    HRESULT code = E_FAIL;
    bool operator==(const hresult_value&) const = default;
};

// A whole number from 0 to Max; the built-in kinds would take fractions or report only
// "out of range".
template <std::uint32_t Max>
struct whole_number {
    std::uint32_t value = 0;
    bool operator==(const whole_number&) const = default;
};

}  // namespace
}  // namespace sim_server

namespace tessel::nsm {

// The value kinds below check the entry's kind themselves (required_kind 0), so that every
// wrong value gets the same message, which says what is expected.

template <class T>
struct value_traits<sim_server::nullable<T>> {
    static constexpr std::uint32_t write_flags = value_traits<T>::write_flags;
    static constexpr std::uint32_t required_kind = 0;
    static constexpr const wchar_t* kind_error = value_traits<T>::kind_error;
    static void save(writer_base& w, const archive_context& c, std::string_view name, std::uint32_t flags,
                     const sim_server::nullable<T>& v)
    {
        if (v.value)
            value_traits<T>::save(w, c, name, flags, *v.value);
        else
            w.write_null(name, kind::present);
    }
    static void load(reader_base& r, const archive_context& c, const entry_info& entry, sim_server::nullable<T>& v)
    {
        // A null entry has no kind and has already been consumed.
        if ((entry.flags & kind::present) == 0) {
            v.value.reset();
            return;
        }
        if ((entry.flags & value_traits<T>::required_kind) != value_traits<T>::required_kind)
            throw load_exception(value_traits<T>::kind_error, r.location());
        value_traits<T>::load(r, c, entry, v.value.emplace());
    }
};

template <>
struct value_traits<sim_server::device_class> {
    static constexpr std::uint32_t write_flags = kind::present | kind::string;
    static constexpr std::uint32_t required_kind = 0;
    static constexpr const wchar_t* kind_error =
        L"must be one of usb, hid, disk, keyboard, mouse, printer, smartcard, image, media, net, ports, bluetooth or "
        L"a GUID in braces";
    static void save(writer_base& w, const archive_context& c, std::string_view name, std::uint32_t flags,
                     const sim_server::device_class& v)
    {
        value_traits<GUID>::save(w, c, name, flags, v.guid);
    }
    static void load(reader_base& r, const archive_context&, const entry_info& entry, sim_server::device_class& v)
    {
        if ((entry.flags & kind::string) == 0)
            throw load_exception(kind_error, r.location());
        const std::wstring where = r.location();
        std::wstring text;
        r.read_wstring(text);
        const auto guid = sim_server::parse_device_class(text);
        if (!guid)
            throw load_exception(kind_error, where);
        v.guid = *guid;
    }
};

template <>
struct value_traits<sim_server::hresult_value> {
    static constexpr std::uint32_t write_flags = kind::present | kind::number;
    static constexpr std::uint32_t required_kind = 0;
    static constexpr const wchar_t* kind_error = L"must be an HRESULT such as \"0x80070005\" or \"E_ACCESSDENIED\"";
    static void save(writer_base& w, const archive_context&, std::string_view name, std::uint32_t flags,
                     const sim_server::hresult_value& v)
    {
        w.write_int64(name, flags, v.code);
    }
    static void load(reader_base& r, const archive_context&, const entry_info& entry, sim_server::hresult_value& v)
    {
        const std::wstring where = r.location();
        std::optional<HRESULT> code;
        if (entry.flags & kind::string) {
            std::wstring text;
            r.read_wstring(text);
            code = sim_server::parse_hresult(text);
        } else if (entry.flags & kind::number) {
            // Numbers, and strings the archive takes for hexadecimal numbers ("0x...").
            std::int64_t number = 0;
            try {
                number = r.read_int64();
            } catch (const load_exception&) {
                throw load_exception(kind_error, where);
            }
            if (number >= -2147483648LL && number <= 0xFFFFFFFFLL)
                code = static_cast<HRESULT>(static_cast<std::uint32_t>(number));
        }
        if (!code)
            throw load_exception(kind_error, where);
        v.code = *code;
    }
};

template <std::uint32_t Max>
struct value_traits<sim_server::whole_number<Max>> {
    static constexpr std::uint32_t write_flags = kind::present | kind::number;
    static constexpr std::uint32_t required_kind = 0;
    static inline const std::wstring message = L"must be a whole number from 0 to " + std::to_wstring(Max);
    static constexpr const wchar_t* kind_error = L"Number expected";
    static void save(writer_base& w, const archive_context&, std::string_view name, std::uint32_t flags,
                     const sim_server::whole_number<Max>& v)
    {
        w.write_uint64(name, flags, v.value);
    }
    static void load(reader_base& r, const archive_context&, const entry_info& entry,
                     sim_server::whole_number<Max>& v)
    {
        const std::wstring where = r.location();
        if ((entry.flags & kind::number) == 0)
            throw load_exception(message, where);
        std::uint64_t number = 0;
        try {
            number = r.read_uint64();
        } catch (const load_exception&) {
            throw load_exception(message, where);
        }
        if (number > Max)
            throw load_exception(message, where);
        v.value = static_cast<std::uint32_t>(number);
    }
};

}  // namespace tessel::nsm

namespace sim_server {
namespace {

// A day is far beyond any useful delay and keeps a typo from hanging a test forever.
using delay_ms = whole_number<24 * 60 * 60 * 1000>;

struct settings_record {
    nullable<std::wstring> endpoints;
    nullable<whole_number<65535>> port;
    nullable<bool> advertisement;
    nullable<bool> statistics;
    bool operator==(const settings_record&) const = default;
    static constexpr auto nsm_members()
    {
        return nsm::members(nsm::member("endpoints", &settings_record::endpoints),
                            nsm::member("port", &settings_record::port),
                            nsm::member("advertisement", &settings_record::advertisement),
                            nsm::member("statistics", &settings_record::statistics));
    }
};

// A local node below a device; its own children nest.
struct child_record {
    device_class cls;
    std::wstring description = L"USB Device";
    nullable<std::wstring> friendly_name;
    std::vector<child_record> children;
    std::wstring instance_id;
    std::vector<std::wstring> hardware_ids;
    bool operator==(const child_record&) const = default;
    static constexpr auto nsm_members()
    {
        return nsm::members(nsm::member("class", &child_record::cls),
                            nsm::member("description", &child_record::description),
                            nsm::member("friendly_name", &child_record::friendly_name),
                            nsm::member("children", &child_record::children),
                            nsm::member("instance_id", &child_record::instance_id),
                            nsm::member("hardware_ids", &child_record::hardware_ids));
    }
};

struct device_record {
    std::wstring id;
    std::wstring name;
    std::wstring location;
    device_class cls;
    std::wstring description = L"USB Device";
    nullable<std::wstring> friendly_name;
    bool connected = true;
    std::wstring client;
    bool needs_share_confirmation = false;
    std::vector<child_record> children;
    std::wstring instance_id;
    std::vector<std::wstring> hardware_ids;
    bool operator==(const device_record&) const = default;
    static constexpr auto nsm_members()
    {
        return nsm::members(nsm::member("id", &device_record::id), nsm::member("name", &device_record::name),
                            nsm::member("location", &device_record::location),
                            nsm::member("class", &device_record::cls),
                            nsm::member("description", &device_record::description),
                            nsm::member("friendly_name", &device_record::friendly_name),
                            nsm::member("connected", &device_record::connected),
                            nsm::member("client", &device_record::client),
                            nsm::member("needs_share_confirmation", &device_record::needs_share_confirmation),
                            nsm::member("children", &device_record::children),
                            nsm::member("instance_id", &device_record::instance_id),
                            nsm::member("hardware_ids", &device_record::hardware_ids));
    }
};

struct share_record {
    std::wstring device;
    nullable<std::wstring> key;
    bool operator==(const share_record&) const = default;
    static constexpr auto nsm_members()
    {
        return nsm::members(nsm::member("device", &share_record::device), nsm::member("key", &share_record::key));
    }
};

struct failure_record {
    std::wstring method;
    hresult_value hresult;
    std::wstring device;
    bool operator==(const failure_record&) const = default;
    static constexpr auto nsm_members()
    {
        return nsm::members(nsm::member("method", &failure_record::method),
                            nsm::member("hresult", &failure_record::hresult),
                            nsm::member("device", &failure_record::device));
    }
};

struct scenario_record {
    bool running = true;
    settings_record settings;
    delay_ms settings_read_delay_ms;
    delay_ms settings_write_delay_ms;
    std::vector<device_record> devices;
    std::vector<share_record> shares;
    std::vector<failure_record> failures;
    static constexpr auto nsm_members()
    {
        return nsm::members(nsm::member("running", &scenario_record::running),
                            nsm::member("settings", &scenario_record::settings),
                            nsm::member("settings_read_delay_ms", &scenario_record::settings_read_delay_ms),
                            nsm::member("settings_write_delay_ms", &scenario_record::settings_write_delay_ms),
                            nsm::member("devices", &scenario_record::devices),
                            nsm::member("shares", &scenario_record::shares),
                            nsm::member("failures", &scenario_record::failures));
    }
};

// Members the elements of a top-level array must have.
struct required_members {
    std::string_view array;
    std::array<std::string_view, 2> names;
};
constexpr required_members required[] = {
    {"devices", {"id", "name"}},
    {"shares", {"device", {}}},
    {"failures", {"method", "hresult"}},
};

// The archive's JSON reader, plus what a hand-written document needs: the path of the
// member being read ("devices[1].class") for messages, names given twice, required
// members and members the scenario does not know are errors with their location.
class scenario_reader final : public nsm::reader_base {
public:
    explicit scenario_reader(std::string_view text) : archive_(text), inner_(archive_.create_reader()) {}

    [[nodiscard]] nsm::archive_context context() const { return nsm::archive_context(archive_.archive_options()); }

    std::uint32_t find_member(std::string_view name) override { return inner_->find_member(name); }

    nsm::entry_info next_entry() override
    {
        // Until the entry is known, a failure belongs to its container.
        if (!levels_.empty())
            levels_.back().has_current = false;
        const nsm::entry_info entry = inner_->next_entry();
        if (entry.at_end() || levels_.empty())
            return entry;
        level& current = levels_.back();
        current.has_current = true;
        if (current.is_array) {
            ++current.index;
        } else {
            current.member.assign(entry.name);
            if (!current.seen.insert(current.member).second)
                throw nsm::load_exception(L"is given twice", inner_->location());
        }
        return entry;
    }

    nsm::time_point read_time() override { return inner_->read_time(); }
    GUID read_guid() override { return inner_->read_guid(); }
    void read_wstring(std::wstring& out) override { inner_->read_wstring(out); }
    std::uint64_t read_uint64() override { return inner_->read_uint64(); }
    std::int64_t read_int64() override { return inner_->read_int64(); }
    double read_double() override { return inner_->read_double(); }
    float read_float() override { return inner_->read_float(); }
    bool read_bool() override { return inner_->read_bool(); }

    std::uint32_t begin_array() override
    {
        const std::uint32_t count = inner_->begin_array();
        levels_.emplace_back(true);
        return count;
    }

    void end_array() override
    {
        inner_->end_array();
        levels_.pop_back();
    }

    std::size_t binary_size() override { return inner_->binary_size(); }

    nsm::object_header begin_object() override
    {
        const nsm::object_header header = inner_->begin_object();
        levels_.emplace_back(false);
        return header;
    }

    void end_object() override
    {
        check_required();
        inner_->end_object();
        levels_.pop_back();
    }

    void read_block(void* data, std::size_t size) override { inner_->read_block(data, size); }
    void read_binary(void* data, std::size_t size) override { inner_->read_binary(data, size); }

    void unknown_entry(const nsm::entry_info& entry) override
    {
        levels_.back().has_current = false;
        std::wstring message = L"has an unknown member \"";
        tessel::append_utf8_as_utf16(message, entry.name);
        message += L'"';
        throw nsm::load_exception(message, inner_->location());
    }

    std::wstring location() override { return inner_->location(); }

    // Whatever follows the document but white space is an error.
    void finish()
    {
        bool at_end = false;
        try {
            at_end = inner_->next_entry().at_end();
        } catch (const nsm::load_exception& e) {
            throw nsm::load_exception(L"has text after its end", e.location());
        }
        if (!at_end)
            throw nsm::load_exception(L"has text after its end", inner_->location());
    }

    // "devices[1].class"; "the scenario" for the document itself.
    [[nodiscard]] std::string path() const
    {
        std::string result;
        for (const level& l : levels_) {
            if (!l.has_current)
                break;
            if (l.is_array) {
                result += '[';
                result += std::to_string(l.index);
                result += ']';
            } else {
                if (!result.empty())
                    result += '.';
                result += l.member;
            }
        }
        return result.empty() ? "the scenario" : result;
    }

private:
    struct level {
        explicit level(bool array) noexcept : is_array(array) {}
        bool is_array;
        bool has_current = false;
        // Arrays: the element being read.
        std::size_t index = static_cast<std::size_t>(-1);
        // Objects: the member being read, and every member read so far.
        std::string member;
        std::set<std::string, std::less<>> seen;
    };

    // The object about to close is an element of a top-level array: its required members.
    void check_required()
    {
        if (levels_.size() != 3 || !levels_[1].is_array)
            return;
        level& object = levels_.back();
        for (const required_members& rule : required) {
            if (rule.array != levels_[0].member)
                continue;
            for (const std::string_view name : rule.names) {
                if (name.empty() || object.seen.contains(name))
                    continue;
                object.has_current = false;
                std::wstring message = L"needs the member \"";
                tessel::append_utf8_as_utf16(message, name);
                message += L'"';
                throw nsm::load_exception(message, inner_->location());
            }
        }
    }

    nsm::json archive_;
    const std::unique_ptr<nsm::reader_base> inner_;
    std::vector<level> levels_;
};

local_node_spec node_of(child_record&& r)
{
    local_node_spec node{r.cls.guid,  std::move(r.description), std::move(r.friendly_name.value),
                         {},          std::move(r.instance_id), std::move(r.hardware_ids)};
    for (child_record& child : r.children)
        node.children.push_back(node_of(std::move(child)));
    return node;
}

device_spec device_of(device_record&& r)
{
    device_spec spec{std::move(r.id),          std::move(r.name),
                     std::move(r.location),    r.cls.guid,
                     std::move(r.description), std::move(r.friendly_name.value),
                     r.connected,              std::move(r.client),
                     r.needs_share_confirmation, {},
                     std::move(r.instance_id), std::move(r.hardware_ids)};
    for (child_record& child : r.children)
        spec.children.push_back(node_of(std::move(child)));
    return spec;
}

}  // namespace

scenario parse_scenario(std::string_view json_text)
{
    scenario_record record;
    scenario_reader reader(json_text);
    try {
        nsm::load_record(reader, reader.context(), record);
        reader.finish();
    } catch (const nsm::load_exception& e) {
        std::string message = tessel::utf16_to_utf8(e.location());
        message += ", ";
        message += reader.path();
        message += ": ";
        tessel::append_utf16_as_utf8(message, e.message());
        throw scenario_error(message);
    }

    scenario s;
    s.running = record.running;
    s.settings.endpoints = std::move(record.settings.endpoints.value);
    if (record.settings.port.value)
        s.settings.port = static_cast<std::uint16_t>(record.settings.port.value->value);
    s.settings.advertisement = record.settings.advertisement.value;
    s.settings.statistics = record.settings.statistics.value;
    s.settings_read_delay_ms = record.settings_read_delay_ms.value;
    s.settings_write_delay_ms = record.settings_write_delay_ms.value;
    for (device_record& device : record.devices)
        s.devices.push_back(device_of(std::move(device)));
    for (share_record& share : record.shares)
        s.shares.push_back({std::move(share.device), share.key.value.value_or(std::wstring())});
    for (failure_record& failure : record.failures)
        s.failures.push_back({std::move(failure.method), std::move(failure.device), failure.hresult.code});
    validate(s);
    return s;
}

}  // namespace sim_server
