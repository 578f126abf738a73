// The console companion run as a process against the substitute server.

#include "console_process.h"

#include "base/utf.h"

#include <accctrl.h>
#include <aclapi.h>
#include <sddl.h>
#include <setupapi.h>

using namespace console_test;

namespace {

constexpr char flash_id[] = R"(USB\VID_3F41&PID_2A07\AC3200417F5E0091)";

bool has(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

// The line of the text that holds `part`.
std::string line_with(const std::string& text, const std::string& part)
{
    const std::size_t at = text.find(part);
    if (at == std::string::npos)
        return {};
    const std::size_t start = text.rfind('\n', at) + 1;
    return text.substr(start, text.find('\n', at) - start);
}

// A configuration document in a file of the test's own.
std::wstring document(const std::string& name, const std::string& json)
{
    const std::wstring path = temp_path(tessel::utf8_to_utf16(name));
    write_file(path, json);
    return path;
}

bool node_exists(const std::wstring& instance_id)
{
    const HDEVINFO set = ::SetupDiCreateDeviceInfoList(nullptr, nullptr);
    SP_DEVINFO_DATA data{};
    data.cbSize = sizeof data;
    const bool found = ::SetupDiOpenDeviceInfoW(set, instance_id.c_str(), nullptr, 0, &data);
    ::SetupDiDestroyDeviceInfoList(set);
    return found;
}

std::wstring quoted(const std::wstring& path)
{
    return L"\"" + path + L"\"";
}

}  // namespace

using console_process = console_test::console_test;

TEST_F(console_process, list_shows_every_device_as_a_table_and_as_json)
{
    auto table = run(L"list --all");
    ASSERT_EQ(table.exit, 0u) << table.err;
    EXPECT_TRUE(has(table.out, "Name ")) << table.out;
    // Names beyond ASCII arrive as UTF-8 when redirected; the hub's local node is indented.
    const std::string cam = line_with(table.out, "Z\xC3\xBCrich Kamera ");
    for (const char* fact : {"USB\\VID_1D6B&PID_0102\\CAM0001", "1D6B:0102", "CAM0001", "Image", "1-3"})
        EXPECT_TRUE(has(cam, fact)) << fact << " in " << table.out;
    EXPECT_TRUE(has(table.out, "\n  USB Input Device")) << table.out;

    const auto json = run(L"list --json");
    ASSERT_EQ(json.exit, 0u) << json.err;
    EXPECT_TRUE(has(json.out, "\"instance_id\": \"USB\\\\VID_3F41&PID_2A07\\\\AC3200417F5E0091\",\n"
                              "      \"vid_pid\": \"3F41:2A07\",\n      \"serial\": \"AC3200417F5E0091\",\n"
                              "      \"class\": \"DiskDrive\",\n      \"location\": \"1-1\",\n"
                              "      \"connected\": true,\n      \"shared\": true,\n      \"has_key\": true,"))
        << json.out;
    EXPECT_FALSE(has(json.out, "old-key")) << "the key itself is never shown";
    EXPECT_FALSE(has(json.out, "children")) << "local nodes only with --all";
}

TEST_F(console_process, share_and_unshare_take_one_device_by_any_selector)
{
    const std::wstring key_file = temp_path(L"cfg-key.txt");
    write_file(key_file, "\xEF\xBB\xBFn\xC3\xA9w key\r\nignored second line\r\n");
    auto r = run(L"share vidpid:1d6b:0102 --key-file " + quoted(key_file));
    EXPECT_EQ(r.exit, 0u) << r.err;
    EXPECT_EQ(share_of(L"cam"), L"n\u00e9w key");
    EXPECT_EQ(run(L"unshare serial:cam0001").exit, 0u);
    EXPECT_EQ(share_of(L"cam"), std::nullopt);

    r = run(L"share name:*64GB --key-stdin", "from stdin\n");
    EXPECT_EQ(r.exit, 0u) << r.err;
    EXPECT_EQ(share_of(L"flash64"), L"from stdin");
    // A bare word is an instance ID first, then a name; class: compares the setup class.
    EXPECT_EQ(run(L"unshare " + tessel::utf8_to_utf16(flash_id)).exit, 0u);
    EXPECT_EQ(run(L"share \"generic usb hub\"").exit, 0u);
    EXPECT_EQ(share_of(L"hub"), L"");
    EXPECT_EQ(run(L"unshare class:usb").exit, 0u);
    EXPECT_EQ(share_of(L"hub"), std::nullopt);

    r = run(L"share name:Arcturus*");
    EXPECT_EQ(r.exit, 4u);
    EXPECT_TRUE(has(r.err, "Arcturus Flash 32GB  USB\\VID_3F41&PID_2A07\\AC3200417F5E0091")) << r.err;
    EXPECT_TRUE(has(r.err, "Arcturus Flash 64GB")) << r.err;
    EXPECT_EQ(run(L"share serial:NOSUCH").exit, 4u);
    EXPECT_EQ(run(L"share vidpid:12345").exit, 3u);
    EXPECT_EQ(run(L"share cam --key-stdin --key-file x").exit, 3u);

    // The keyboard asks first: only --yes shares it.
    r = run(L"share name:Kestrel*");
    EXPECT_EQ(r.exit, 3u);
    EXPECT_TRUE(has(r.err, "--yes")) << r.err;
    EXPECT_EQ(share_of(L"keyboard"), std::nullopt);
    EXPECT_EQ(run(L"share name:Kestrel* --yes").exit, 0u);
    EXPECT_EQ(share_of(L"keyboard"), L"");
    ::DeleteFileW(key_file.c_str());
}

TEST_F(console_process, settings_are_read_and_changed_within_their_limits)
{
    auto r = run(L"settings --json");
    ASSERT_EQ(r.exit, 0u) << r.err;
    EXPECT_TRUE(has(r.out, "\"port\": 32032,\n  \"advertisement\": true,\n  \"statistics\": false")) << r.out;
    r = run(L"settings set port=8080 advertisement=off endpoints=127.0.0.1:8080");
    EXPECT_EQ(r.exit, 0u) << r.err;
    const auto settings = state().settings;
    EXPECT_EQ(settings.port, 8080);
    EXPECT_EQ(settings.advertisement, false);
    EXPECT_EQ(settings.endpoints, L"127.0.0.1:8080");
    EXPECT_EQ(settings.statistics, false);
    for (const auto* bad : {L"port=0", L"port=65536", L"port=80a", L"port=", L"statistics=maybe", L"colour=red", L""}) {
        EXPECT_EQ(run(std::wstring(L"settings set ") + bad).exit, 3u) << tessel::utf16_to_utf8(bad);
        EXPECT_EQ(state().settings.port, 8080);
    }
}

TEST_F(console_process, an_export_applied_to_a_fresh_server_gives_the_same_shares_and_settings)
{
    ASSERT_EQ(run(L"share name:Z* --key-stdin", "cam-key").exit, 0u);
    ASSERT_EQ(run(L"share \"Generic USB Hub\"").exit, 0u);
    ASSERT_EQ(run(L"settings set port=4711 statistics=on").exit, 0u);
    const auto before = state();
    const std::wstring exported = temp_path(L"cfg-export.json");
    const auto r = run(L"export --with-keys " + quoted(exported));
    ASSERT_EQ(r.exit, 0u) << r.err;

    // Readable by Administrators and this user only: no entry lets anyone else in (Wine
    // keeps the entries as Unix permissions and shows the group as SYSTEM).
    PACL acl = nullptr;
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    ASSERT_EQ(::GetNamedSecurityInfoW(exported.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr,
                                      &acl, nullptr, &descriptor),
              ERROR_SUCCESS);
    const tessel::unique_hlocal owned(descriptor);
    ASSERT_TRUE(acl);
    for (DWORD i = 0; i < acl->AceCount; ++i) {
        ACCESS_ALLOWED_ACE* ace = nullptr;
        ASSERT_TRUE(::GetAce(acl, i, reinterpret_cast<void**>(&ace)));
        for (const auto others : {WinWorldSid, WinBuiltinUsersSid, WinAuthenticatedUserSid})
            EXPECT_FALSE(::IsWellKnownSid(&ace->SidStart, others)) << "entry " << i;
    }

    // A fresh server: the scenario again.
    ::DeleteFileW(state_path_.c_str());
    EXPECT_EQ(run(L"apply " + quoted(exported) + L" --check").exit, 7u);
    const auto applied = run(L"apply " + quoted(exported));
    EXPECT_EQ(applied.exit, 0u) << applied.err;
    EXPECT_TRUE(has(applied.out, "Sharing Z\xC3\xBCrich Kamera (USB\\VID_1D6B&PID_0102\\CAM0001)\n")) << applied.out;
    const auto after = state();
    EXPECT_EQ(after.settings.port, before.settings.port);
    EXPECT_EQ(after.settings.statistics, before.settings.statistics);
    EXPECT_EQ(after.shares.size(), before.shares.size());
    for (const auto& share : before.shares)
        EXPECT_EQ(share_of(share.device_id), share.key) << tessel::utf16_to_utf8(share.device_id);

    const auto again = run(L"apply " + quoted(exported));
    EXPECT_EQ(again.exit, 0u);
    EXPECT_TRUE(has(again.out, "Nothing to do")) << again.out;
    EXPECT_EQ(run(L"apply " + quoted(exported) + L" --check").exit, 0u);
    ::DeleteFileW(exported.c_str());
}

TEST_F(console_process, dry_run_changes_nothing_and_prune_unshares_what_no_rule_matches)
{
    const std::wstring path = document("cfg-prune.json", R"({"version": 1, "shares": [
        {"match": {"name": "z?rich*"}, "key": "k"},
        {"match": {"vid_pid": "3F41:2A07", "serial": "AC3200417F5E0091"}, "key": "new-key"},
        {"match": {"class": "keyboard"}}]})");
    ASSERT_EQ(run(L"share \"Generic USB Hub\"").exit, 0u);
    auto r = run(L"apply " + quoted(path) + L" --prune --dry-run");
    EXPECT_EQ(r.exit, 0u);
    for (const char* line : {"Sharing Z\xC3\xBCrich Kamera", "Sharing Arcturus Flash 32GB (USB\\VID_3F41&PID_2A07\\"
                             "AC3200417F5E0091) again, with the rule's key", "Unsharing Generic USB Hub",
                             "Not sharing Kestrel K120 Keyboard", "Dry run"})
        EXPECT_TRUE(has(r.out, line)) << line << " in " << r.out;
    EXPECT_EQ(share_of(L"flash"), L"old-key");
    EXPECT_EQ(share_of(L"hub"), L"");
    EXPECT_EQ(share_of(L"cam"), std::nullopt);

    // The keyboard asks for confirmation: without --yes that rule fails, the others are made.
    r = run(L"apply " + quoted(path) + L" --prune");
    EXPECT_EQ(r.exit, 6u) << r.out;
    EXPECT_EQ(share_of(L"flash"), L"new-key");
    EXPECT_EQ(share_of(L"hub"), std::nullopt);
    EXPECT_EQ(share_of(L"cam"), L"k");
    EXPECT_EQ(run(L"apply " + quoted(path) + L" --prune --yes").exit, 0u);
    EXPECT_EQ(share_of(L"keyboard"), L"");
    ::DeleteFileW(path.c_str());
}

TEST_F(console_process, a_bad_document_ends_with_3_before_the_server_is_asked_anything)
{
    const struct {
        const char* json;
        const char* message;
    } bad[] = {
        {R"({"version": 1, "shares": [{"match": {"name": x}}]})", "line 1, column 46, shares[0].match: is not valid JSON"},
        {R"({"version": 1, "shares": [{"match": {"vid_pd": "0781:5567"}}]})",
         "line 1, column 38, shares[0].match.vid_pd: has an unknown member \"vid_pd\""},
        {"{\"version\": 1,\n \"server\": {\"port\": \"80\"}}", "line 2, column 21, server.port: must be a number"},
        {R"({"version": 2})", "version: must be 1"},
        {R"({"version": 1, "shares": [{"match": {"serial": "A"}, "key_file": "no-such.key"}]})",
         "shares[0].key_file: the key file"},
    };
    for (const auto& [json, message] : bad) {
        const std::wstring path = document("cfg-bad.json", json);
        const auto r = run(L"apply " + quoted(path));
        EXPECT_EQ(r.exit, 3u) << json;
        EXPECT_TRUE(has(r.err, message)) << r.err;
        ::DeleteFileW(path.c_str());
    }
    const std::wstring large = document("cfg-large.json", std::string(1024 * 1024 + 1, ' '));
    const auto too_large = run(L"watch " + quoted(large));
    EXPECT_EQ(too_large.exit, 3u);
    EXPECT_TRUE(has(too_large.err, "larger than 1 MB")) << too_large.err;
    ::DeleteFileW(large.c_str());
    EXPECT_EQ(census_ends(), 0) << "no run may have loaded the server";
    EXPECT_EQ(::GetFileAttributesW(state_path_.c_str()), INVALID_FILE_ATTRIBUTES) << "nothing was changed";
}

TEST_F(console_process, watch_shares_devices_as_they_come_and_waits_out_a_server_restart)
{
    const std::wstring path = document("cfg-watch.json", R"({"version": 1, "shares": [
        {"match": {"name": "Lab *"}, "key": "lab"}, {"match": {"serial": "CAM0001"}}]})");
    {
        background_run watch(L"watch " + quoted(path), true);
        ASSERT_TRUE(watch.shows("Watching the server's devices")) << watch.output();
        const auto tool = [](const std::wstring& arguments) {
            return test_support::run_tool(L"ulmora-sim-ctl.exe", arguments).exit_code;
        };
        ASSERT_EQ(tool(L"add scope \"Lab Scope\" instance_id=USB\\VID_1AB1&PID_0588\\DS1ZA1"), 0u);
        ASSERT_EQ(tool(L"add mouse \"Office Mouse\" class=mouse"), 0u);
        const ULONGLONG added = ::GetTickCount64();
        EXPECT_TRUE(eventually([&] { return has(tessel::utf16_to_utf8(*control({L"list"})), "share scope key=\"lab\""); },
                               2000));
        EXPECT_LE(::GetTickCount64() - added, 2000u);
        EXPECT_TRUE(watch.shows("Sharing Lab Scope (USB\\VID_1AB1&PID_0588\\DS1ZA1)")) << watch.output();
        EXPECT_FALSE(has(watch.output(), "Office Mouse"));

        // The server goes away; once it is back (it plays its state file), the watch
        // finds it and goes on.
        ASSERT_TRUE(control({L"stop", L"1500"}));
        EXPECT_TRUE(watch.shows("The server went away")) << watch.output();
        EXPECT_TRUE(watch.shows("Connected to the server.", 40000)) << watch.output();
        ASSERT_TRUE(eventually([&] { return control({L"add", L"probe", L"Lab Probe"}).has_value(); }));
        EXPECT_TRUE(eventually([&] { return has(tessel::utf16_to_utf8(*control({L"list"})), "share probe"); }, 2000));

        // Log-off: the session's end reaches the watch through its hidden window, and the
        // system may end the process as soon as that message is answered: by then the
        // server must be gone (its device nodes with it).
        const HWND window = ::FindWindowW(L"qmx.ulmora.cfg.session", nullptr);
        ASSERT_TRUE(window);
        ASSERT_TRUE(node_exists(L"USB\\VID_3F41&PID_2A07\\AC3200417F5E0091"));
        DWORD_PTR answer = 0;
        EXPECT_TRUE(::SendMessageTimeoutW(window, WM_QUERYENDSESSION, 0, ENDSESSION_LOGOFF, SMTO_BLOCK, 5000, &answer));
        ::SendMessageTimeoutW(window, WM_ENDSESSION, TRUE, ENDSESSION_LOGOFF, SMTO_BLOCK, 5000, &answer);
        watch.kill();
        EXPECT_FALSE(node_exists(L"USB\\VID_3F41&PID_2A07\\AC3200417F5E0091"));
    }
    // Ctrl+C at its console, where the watch writes as wide text (a fresh server, so
    // that it has the camera to share again).
    ::DeleteFileW(state_path_.c_str());
    background_run watch(L"watch " + quoted(path), false);
    EXPECT_TRUE(watch.shows("Sharing Z\xC3\xBCrich Kamera")) << watch.screen();
    ASSERT_TRUE(watch.interrupt());
    EXPECT_EQ(watch.wait(), 0u);
    EXPECT_EQ(census_ends(), 1) << "the interrupted watch let go of its server";
    ::DeleteFileW(path.c_str());
}
