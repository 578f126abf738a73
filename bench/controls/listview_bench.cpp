// The list view side by side with what it is measured against. Prints a table; not a
// test.
//  - Paint: thread CPU time of a full repaint and of a one-row scroll (scroll plus the
//    repaint of what it uncovered) with 10^3 and with 10^6 rows in the same window; the
//    ratio 10^6 / 10^3 shows that the cost does not grow with the rows.
//  - Against the system list view in owner-data mode (LVS_OWNERDATA, texts from
//    LVN_GETDISPINFO), same size, same columns, same texts: the one-row scroll.
//  - Type-to-find over 10000 rows that do not match, right after the texts changed (every
//    row asked for its text) and again over the same texts (the next letter typed),
//    against a bare prefix scan of the same plain texts with the same case folding.
//  - The scroll bar's thumb moved alone: both lists pay it inside their one-row scroll.
// The machine is shared: batches of the two sides are interleaved in alternating order
// and the table gives the fastest batch and the median.

#include "bench_timing.h"

#include "base/failure.h"
#include "base/unique_handle.h"
#include "controls/listview.h"

#include <commctrl.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <locale>
#include <string>
#include <string_view>
#include <vector>

using namespace tessel;
using namespace tessel::windows::new_controls::listview::impl;
using bench::now_ns;
using bench::samples;

namespace {

constexpr int width = 600, height = 400;

double thread_cpu_ns()
{
    FILETIME created, ended, kernel, user;
    ::GetThreadTimes(::GetCurrentThread(), &created, &ended, &kernel, &user);
    const auto value = [](FILETIME t) { return (std::uint64_t(t.dwHighDateTime) << 32) | t.dwLowDateTime; };
    return double(value(kernel) + value(user)) * 100.0;
}

void pump()
{
    MSG msg;
    while (::PeekMessageW(&msg, nullptr, 0, 0, PM_REMOVE)) {
        ::TranslateMessage(&msg);
        ::DispatchMessageW(&msg);
    }
}

std::wstring row_text(std::size_t row, std::size_t column)
{
    return (column == 0 ? L"Device " : L"Value ") + std::to_wstring(row);
}

LRESULT CALLBACK owner_proc(HWND window, UINT message, WPARAM wparam, LPARAM lparam)
{
    if (message == WM_NOTIFY) {
        auto* header = reinterpret_cast<NMHDR*>(lparam);
        if (header->code == LVN_GETDISPINFOW) {
            auto* info = reinterpret_cast<NMLVDISPINFOW*>(lparam);
            if (info->item.mask & LVIF_TEXT) {
                const std::wstring text = row_text(std::size_t(info->item.iItem), std::size_t(info->item.iSubItem));
                lstrcpynW(info->item.pszText, text.c_str(), info->item.cchTextMax);
            }
        }
        return 0;
    }
    return ::DefWindowProcW(window, message, wparam, lparam);
}

HWND make_owner()
{
    WNDCLASSW wc{};
    wc.lpfnWndProc = owner_proc;
    wc.hInstance = ::GetModuleHandleW(nullptr);
    wc.lpszClassName = L"listview_bench.owner";
    ::RegisterClassW(&wc);
    const HWND owner = ::CreateWindowExW(0, wc.lpszClassName, L"bench", WS_OVERLAPPEDWINDOW | WS_CLIPCHILDREN | WS_VISIBLE,
                                         0, 0, width + 40, height + 60, nullptr, nullptr, wc.hInstance, nullptr);
    return owner;
}

std::unique_ptr<listview<uniform_height>> make_list(HWND owner, row_index rows, int id)
{
    auto list = std::make_unique<listview<uniform_height>>(owner, id, RECT{0, 0, width, height});
    list->set_columns({{L"Name", 250, 30}, {L"Value", 250, 30}});
    list->handlers().cell_text.push_back(
        [](row_index row, std::size_t first, std::span<cell> cells, std::optional<D2D1_COLOR_F>&) {
            for (std::size_t i = 0; i < cells.size(); ++i)
                cells[i].text = row_text(std::size_t(row), first + i);
            return true;
        });
    list->set_row_count(rows);
    ::ShowWindow(list->window(), SW_HIDE);
    return list;
}

// Runs `count` repetitions of an action on a list shown alone, returning CPU ns each.
double cpu_per(int count, const std::function<void(int)>& action)
{
    const double start = thread_cpu_ns();
    for (int i = 0; i < count; ++i)
        action(i);
    return (thread_cpu_ns() - start) / count;
}

void paint_benchmarks(HWND owner)
{
    auto small = make_list(owner, 1000, 1);
    auto large = make_list(owner, 1000000, 2);
    HWND system = ::CreateWindowExW(0, WC_LISTVIEWW, L"", WS_CHILD | LVS_REPORT | LVS_OWNERDATA, 0, 0, width, height,
                                    owner, reinterpret_cast<HMENU>(3), ::GetModuleHandleW(nullptr), nullptr);
    for (int c = 0; c < 2; ++c) {
        LVCOLUMNW column{};
        column.mask = LVCF_TEXT | LVCF_WIDTH;
        column.cx = 250;
        column.pszText = const_cast<wchar_t*>(c == 0 ? L"Name" : L"Value");
        ::SendMessageW(system, LVM_INSERTCOLUMNW, c, reinterpret_cast<LPARAM>(&column));
    }
    ::SendMessageW(system, LVM_SETITEMCOUNT, 1000000, 0);
    ::SendMessageW(system, LVM_SETEXTENDEDLISTVIEWSTYLE, LVS_EX_DOUBLEBUFFER, LVS_EX_DOUBLEBUFFER);
    const int system_row = HIWORD(::SendMessageW(system, LVM_GETITEMSPACING, TRUE, 0));

    const auto show = [&](HWND window) {
        for (HWND w : {small->window(), large->window(), system})
            ::ShowWindow(w, w == window ? SW_SHOWNA : SW_HIDE);
        ::UpdateWindow(window);
        pump();
    };
    const auto full = [](HWND window) {
        return [window](int) {
            ::InvalidateRect(window, nullptr, FALSE);
            ::UpdateWindow(window);
        };
    };
    samples small_full, large_full, small_scroll, large_scroll, system_scroll, system_full, thumb;
    // Thread times advance in 10 ms ticks under Wine: 50 repetitions resolve 0.2 ms.
    constexpr int reps = 50;
    for (int batch = 0; batch < 7; ++batch) {
        show(small->window());
        small_full.ns.push_back(cpu_per(reps, full(small->window())));
        small->scroll_to(0);
        ::UpdateWindow(small->window());
        small_scroll.ns.push_back(cpu_per(reps, [&](int i) {
            small->scroll_to(row_index(i + 1) + row_index(batch % 2) * 500);
            ::UpdateWindow(small->window());
        }));
        show(large->window());
        large_full.ns.push_back(cpu_per(reps, full(large->window())));
        large->scroll_to(500000 + row_index(batch) * 1000);
        ::UpdateWindow(large->window());
        large_scroll.ns.push_back(cpu_per(reps, [&](int i) {
            large->scroll_to(500000 + row_index(batch) * 1000 + row_index(i + 1));
            ::UpdateWindow(large->window());
        }));
        show(system);
        system_full.ns.push_back(cpu_per(reps, full(system)));
        ::SendMessageW(system, LVM_ENSUREVISIBLE, 500000 + batch * 1000, FALSE);
        ::UpdateWindow(system);
        system_scroll.ns.push_back(cpu_per(reps, [&](int) {
            ::SendMessageW(system, LVM_SCROLL, 0, system_row);
            ::UpdateWindow(system);
        }));
        // What both lists pay for moving the scroll bar's thumb, inside their scroll.
        show(large->window());
        thumb.ns.push_back(cpu_per(reps, [&](int i) {
            SCROLLINFO position{sizeof position, SIF_POS, 0, 0, 0, 1000 + batch * reps + i, 0};
            ::SetScrollInfo(large->window(), SB_VERT, &position, TRUE);
        }));
        large->scroll_to(0);  // the thumb where the list has its top row
    }
    char d3d_config[64] = "";
    ::GetEnvironmentVariableA("WINE_D3D_CONFIG", d3d_config, sizeof d3d_config);
    std::printf("paint, thread CPU per operation (best / median of 7 batches of %d), window %dx%d, WINE_D3D_CONFIG=%s:\n",
                reps, width, height, d3d_config);
    const auto line = [](const char* name, const samples& s) {
        std::printf("  %-44s %9.0f us %9.0f us\n", name, s.best() / 1000, s.median() / 1000);
    };
    line("full repaint, 10^3 rows", small_full);
    line("full repaint, 10^6 rows", large_full);
    line("one-row scroll, 10^3 rows", small_scroll);
    line("one-row scroll, 10^6 rows", large_scroll);
    line("system list view (owner data), full repaint", system_full);
    line("system list view (owner data), one-row scroll", system_scroll);
    line("scroll bar thumb moved alone (in both scrolls)", thumb);
    std::printf("  ratio 10^6 / 10^3: full %.2f, scroll %.2f (target <= 1.1)\n",
                large_full.median() / small_full.median(), large_scroll.median() / small_scroll.median());
    std::printf("  one-row scroll, ours / system: %.2f (target <= 1.0)\n", large_scroll.median() / system_scroll.median());
    ::DestroyWindow(system);
}

void find_benchmark(HWND owner)
{
    constexpr std::size_t rows = 10000;
    std::vector<std::wstring> texts(rows);
    for (std::size_t i = 0; i < rows; ++i)
        texts[i] = L"  Device " + std::to_wstring(i * 7919 % 100000) + L" on port " + std::to_wstring(i % 8);
    listview<uniform_height> list(owner, 9, RECT{0, 0, width, height});
    list.set_columns({{L"Name", 250, 30}});
    list.handlers().cell_text.push_back(
        [&texts](row_index row, std::size_t, std::span<cell> cells, std::optional<D2D1_COLOR_F>&) {
            cells[0].text = texts[std::size_t(row)];
            return true;
        });
    list.set_row_count(rows);
    const std::wstring needle = L"zzz";  // matches nothing

    const auto bare_scan = [&]() -> std::size_t {
        const std::ctype<wchar_t>& ctype = std::use_facet<std::ctype<wchar_t>>(std::locale());
        std::wstring folded = needle;
        ctype.tolower(folded.data(), folded.data() + folded.size());
        for (std::size_t r = 0; r < rows; ++r) {
            const std::wstring& text = texts[r];
            std::size_t at = 0;
            while (at < text.size() && (text[at] == L' ' || text[at] == L'\t' || text[at] == L'\r' || text[at] == L'\n'))
                ++at;
            if (text.size() - at < folded.size())
                continue;
            bool match = true;
            for (std::size_t i = 0; match && i < folded.size(); ++i)
                match = ctype.tolower(text[at + i]) == folded[i];
            if (match)
                return r;
        }
        return rows;
    };
    volatile std::size_t sink = 0;
    // Cold: the texts changed since the last search, so every row is asked for its text.
    // Warm: the next letter typed, over the rows the previous letter read.
    samples cold, warm, bare;
    for (int batch = 0; batch < 21; ++batch) {
        for (int side = 0; side < 3; ++side) {
            const int which = (side + batch) % 3;
            if (which == 0)
                list.invalidate_all();
            const double start = now_ns();
            if (which == 2)
                sink = sink + bare_scan();
            else
                sink = sink + std::size_t(list.find_row(needle));
            (which == 0 ? cold : which == 1 ? warm : bare).ns.push_back(now_ns() - start);
        }
    }
    std::printf("type-to-find over %zu rows without a match (best / median of 21):\n", rows);
    std::printf("  %-44s %9.1f us %9.1f us\n", "list view find_row, texts changed", cold.best() / 1000,
                cold.median() / 1000);
    std::printf("  %-44s %9.1f us %9.1f us\n", "list view find_row, same texts again", warm.best() / 1000,
                warm.median() / 1000);
    std::printf("  %-44s %9.1f us %9.1f us\n", "bare prefix scan of the plain texts", bare.best() / 1000,
                bare.median() / 1000);
    std::printf("  ratio %.2f texts changed, %.2f same texts (target <= 2), %.2f ms (target < 16.7)\n",
                cold.median() / bare.median(), warm.median() / bare.median(), cold.median() / 1e6);
}

// Only one-row scrolls of our list, for as long as a profiler wants to watch.
void scroll_loop(HWND owner, int count)
{
    auto list = make_list(owner, 1000000, 2);
    ::ShowWindow(list->window(), SW_SHOWNA);
    ::UpdateWindow(list->window());
    pump();
    const double start = thread_cpu_ns();
    for (int i = 0; i < count; ++i) {
        list->scroll_to(500000 + row_index(i));
        ::UpdateWindow(list->window());
    }
    std::printf("one-row scroll, 10^6 rows: %.0f us thread CPU each over %d\n", (thread_cpu_ns() - start) / count / 1000,
                count);
}

}  // namespace

// With "scroll N" only N one-row scrolls of our list run, for a profiler to watch.
int main(int argc, char** argv)
{
    ::CoInitialize(nullptr);
    INITCOMMONCONTROLSEX controls{sizeof controls, ICC_LISTVIEW_CLASSES};
    ::InitCommonControlsEx(&controls);
    const HWND owner = make_owner();
    try {
        if (argc == 3 && std::string_view(argv[1]) == "scroll") {
            scroll_loop(owner, std::atoi(argv[2]));
            return 0;
        }
        find_benchmark(owner);
        paint_benchmarks(owner);
    } catch (...) {
        std::printf("failed: %08lx\n", static_cast<unsigned long>(hresult_from_caught_exception()));
        return 1;
    }
    ::DestroyWindow(owner);
    return 0;
}
