// The list and the tree as a screen reader meets them: through WM_GETOBJECT from another
// process (controls_accessibility_probe.exe), and through the events they raise.

#include "controls/treeview.h"

#include "base/utf.h"
#include "child_process.h"
#include "message_pump.h"
#include "test_support.h"

#include <gtest/gtest.h>

#include <oleacc.h>

#include <sstream>
#include <string>
#include <vector>

using namespace tessel::windows::new_controls;
using namespace tessel::windows::new_controls::treeview::impl;

namespace {

tessel::unique_hwnd make_owner()
{
    return controls_tests::owner_window(L"controls_tests.a11y_owner", ::DefWindowProcW, 480, 360);
}

// Runs the probe against `window` while this thread keeps answering its messages, and
// returns what it printed.
std::string probe(HWND window, const std::wstring& commands = {})
{
    const test_support::tool_result run =
        test_support::run_tool(L"controls_accessibility_probe.exe",
                               std::to_wstring(reinterpret_cast<INT_PTR>(window)) + L" " + commands, 30000, true);
    if (run.exit_code == 99)
        return "the probe did not finish";
    return tessel::utf16_to_utf8(run.output);
}

std::vector<std::string> lines_of(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (!line.empty() && line.back() == '\r')
            line.pop_back(), lines.push_back(line);
        else
            lines.push_back(line);
    return lines;
}

std::string child_line(long id, const char* name, long role, long state, const char* value)
{
    char line[256];
    std::snprintf(line, sizeof line, "child %ld|%s|%ld|%lx|%s", id, name, role, state, value);
    return line;
}

}  // namespace

TEST(accessibility, a_reader_in_another_process_sees_rows_names_states_and_levels)
{
    const tessel::unique_hwnd owner = make_owner();
    tree_view tree(owner.get(), 1003, RECT{0, 0, 440, 300});
    tree.set_columns({{L"Device", 200, 40}, {L"Client", 120, 30}});
    tree_node* hub = tree.insert(nullptr, nullptr,
                                 {.text = L"[[[bHub]]]", .image = vector_image{1},
                                  .column_texts = {L"[[[v#[server.client.connected]# ]]] alice"}});
    tree_node* disk = tree.insert(hub, nullptr, {.text = L"[[[iDisk]]]"});
    tree_node* closed = tree.insert(nullptr, nullptr, {.text = L"Closed"});
    tree.insert(closed, nullptr, {.text = L"hidden"});
    tree.collapse(closed);
    tree.select(disk);
    ::SetFocus(tree.window());
    ASSERT_EQ(::GetFocus(), tree.window());

    const std::vector<std::string> lines = lines_of(probe(tree.window()));
    ASSERT_EQ(lines.size(), 4u) << (lines.empty() ? "" : lines[0]);
    EXPECT_EQ(lines[0], "role " + std::to_string(ROLE_SYSTEM_OUTLINE) + " count 3 focus 2");
    const long item = STATE_SYSTEM_SELECTABLE | STATE_SYSTEM_FOCUSABLE;
    EXPECT_EQ(lines[1], child_line(1, "Hub, alice", ROLE_SYSTEM_OUTLINEITEM, item | STATE_SYSTEM_EXPANDED, "0"));
    EXPECT_EQ(lines[2], child_line(2, "Disk", ROLE_SYSTEM_OUTLINEITEM,
                                   item | STATE_SYSTEM_SELECTED | STATE_SYSTEM_FOCUSED, "1"));
    EXPECT_EQ(lines[3], child_line(3, "Closed", ROLE_SYSTEM_OUTLINEITEM, item | STATE_SYSTEM_COLLAPSED, "0"));

    // A plain list answers as a list.
    listview::impl::listview<listview::impl::uniform_height> list(owner.get(), 1004, RECT{0, 0, 200, 200});
    list.set_columns({{L"Name", 150, 30}});
    list.handlers().cell_text.push_back(
        [](row_index row, std::size_t, std::span<listview::impl::cell> cells, std::optional<D2D1_COLOR_F>&) {
            cells[0].text = L"  item " + std::to_wstring(row);
            return true;
        });
    list.set_row_count(2);
    const std::vector<std::string> list_lines = lines_of(probe(list.window()));
    ASSERT_EQ(list_lines.size(), 3u);
    EXPECT_EQ(list_lines[0], "role " + std::to_string(ROLE_SYSTEM_LIST) + " count 2 focus -1");
    EXPECT_EQ(list_lines[2], child_line(2, "item 1", ROLE_SYSTEM_LISTITEM, item, ""));

    // A reader selects as a user clicks: plainly, with Shift (from the anchor), with Ctrl
    // (add or remove one row), with Shift and Ctrl; contradicting flags are refused.
    list.set_selection_mode(listview::impl::selection_mode::multiple);
    list.set_row_count(20);
    const std::string ok = "select 00000000";
    EXPECT_EQ(lines_of(probe(list.window(), L"select 3 3 select 5 6 select 8 10 select 16 4 select 20 5 select 10 1 "
                                            L"selection")),
              (std::vector<std::string>{ok, ok, ok, ok, ok, "select 80070057", "selection 6,10"}));

    // Rows past the last child id are not named as another row's.
    list.clear_selection();
    list.set_row_count(0x80000005);
    list.select_range(0x7ffffffc, 0x80000000, true);
    EXPECT_EQ(lines_of(probe(list.window(), L"selection")), std::vector<std::string>{"selection 2147483645,2147483646"});
    list.set_selection_mode(listview::impl::selection_mode::single);
    list.select_row(0x7ffffffe);
    EXPECT_EQ(lines_of(probe(list.window(), L"selection")), std::vector<std::string>{"selection none"});
}

namespace {

struct win_event {
    DWORD event;
    LONG child;
};
std::vector<win_event> events;
HWND watched = nullptr;

void CALLBACK on_win_event(HWINEVENTHOOK, DWORD event, HWND window, LONG object, LONG child, DWORD, DWORD)
{
    if (window == watched && object == OBJID_CLIENT)
        events.push_back({event, child});
}

bool saw(DWORD event, LONG child)
{
    for (const win_event& e : events)
        if (e.event == event && e.child == child)
            return true;
    return false;
}

}  // namespace

TEST(accessibility, focus_selection_and_expansion_raise_events)
{
    const tessel::unique_hwnd owner = make_owner();
    tree_view tree(owner.get(), 1003, RECT{0, 0, 440, 300});
    tree.set_columns({{L"Device", 200, 40}});
    tree_node* a = tree.insert(nullptr, nullptr, {.text = L"a"});
    tree.insert(a, nullptr, {.text = L"a1"});
    tree_node* b = tree.insert(nullptr, nullptr, {.text = L"b"});
    ::SetFocus(tree.window());
    watched = tree.window();
    events.clear();
    const HWINEVENTHOOK hook = ::SetWinEventHook(EVENT_OBJECT_FOCUS, EVENT_OBJECT_NAMECHANGE, nullptr, on_win_event,
                                                 ::GetCurrentProcessId(), 0, WINEVENT_OUTOFCONTEXT);
    ASSERT_NE(hook, nullptr);
    tree.select(b);
    tree.set_focus_node(b);
    tree.collapse(a);
    tree.list().invalidate_rows(0);
    test_support::pump_until([] { return saw(EVENT_OBJECT_NAMECHANGE, 1); }, 3000);
    ::UnhookWinEvent(hook);
    EXPECT_TRUE(saw(EVENT_OBJECT_SELECTION, 3)) << "b was row 3 when it was selected";
    EXPECT_TRUE(saw(EVENT_OBJECT_FOCUS, 3));
    EXPECT_TRUE(saw(EVENT_OBJECT_STATECHANGE, 1)) << "a collapsed";
    EXPECT_TRUE(saw(EVENT_OBJECT_FOCUS, 2)) << "the focus row moved up";
    EXPECT_TRUE(saw(EVENT_OBJECT_NAMECHANGE, 1)) << "the list's own row changed";
}
