// Markup parsing of typical cell texts against a plain scan for '[' over the same texts
// (counting them, so that the scan reads every code unit as the parser must),
// and against creating a DirectWrite text layout for the cell. Prints a table; not a test.

#include "base/com_ptr.h"
#include "base/failure.h"
#include "controls/markup.h"
#include "controls/rich_layout.h"

#include <dwrite.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

using namespace tessel;
using namespace tessel::windows::new_controls;

namespace {

double now_ns()
{
    static const double ns_per_tick = [] {
        LARGE_INTEGER f;
        ::QueryPerformanceFrequency(&f);
        return 1e9 / double(f.QuadPart);
    }();
    LARGE_INTEGER t;
    ::QueryPerformanceCounter(&t);
    return double(t.QuadPart) * ns_per_tick;
}

// Best of many short runs, in ns per text: the minimum is what the code costs when
// nothing else (other processes on a shared machine) gets in the way.
template <class body>
double time_per_text(const std::vector<std::wstring>& texts, int iterations, body&& fn)
{
    double best = 1e300;
    for (int run = 0; run < 61; ++run) {
        const double start = now_ns();
        for (int i = 0; i < iterations; ++i)
            for (const std::wstring& t : texts)
                fn(t);
        best = std::min(best, (now_ns() - start) / (double(iterations) * double(texts.size())));
    }
    return best;
}

volatile std::size_t sink;

// The baseline: one plain pass over the text counting '['. Out of line, so that it is
// compiled the same way wherever it is timed (inlined into the timing loop, the compiler
// sometimes vectorizes it and sometimes not, which would move the baseline, not the parser).
__attribute__((noinline)) std::size_t scan_for_bracket(std::wstring_view text) noexcept
{
    std::size_t count = 0;
    for (const wchar_t c : text)
        count += c == L'[';
    return count;
}

}  // namespace

int main()
try {
    throw_if_failed(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED));
    com_ptr<IDWriteFactory> dwrite;
    throw_if_failed(::DWriteCreateFactory(DWRITE_FACTORY_TYPE_SHARED, __uuidof(IDWriteFactory),
                                          reinterpret_cast<IUnknown**>(dwrite.put())));
    com_ptr<IDWriteTextFormat> format;
    throw_if_failed(dwrite->CreateTextFormat(L"Tahoma", nullptr, DWRITE_FONT_WEIGHT_NORMAL, DWRITE_FONT_STYLE_NORMAL,
                                             DWRITE_FONT_STRETCH_NORMAL, 12.f, L"en-us", format.put()));

    struct group {
        const char* name;
        std::vector<std::wstring> texts;
    };
    const std::vector<group> groups = {
        {"plain names",
         {L"Mass Storage Device", L"USB Composite Device", L"Generic USB Hub", L"HID Keyboard Device",
          L"USB Input Device", L"alice-laptop.example.org", L"Shared", L"Not shared", L"Port 7, Hub 2",
          L"USB Serial Converter (COM4)"}},
        {"tree icon cells",
         {L"[[[g:0: ]]][[[v:17: ]]] Mass Storage Device", L"[[[g:20: ]]][[[v:23::4: ]]] USB Composite Device",
          L"[[[g:40: ]]][[[r:140723514: ]]] HID Keyboard Device",
          L"[[[g:0: ]]][[[F:140723999:[[[f#[Fluent]#3]]]]]] Generic USB Hub",
          L"[[[g:60: ]]][[[v:11::2: ]]] USB Serial Converter (COM4)"}},
        {"client cells",
         {L"[[[v#[server.client.connected]# ]]] alice-laptop.example.org",
          L"[[[v#[server.client.disconnected]# ]]] 192.168.10.21", L"[[[v#[server.client.connected]# ]]] bob"}},
    };

    std::printf("%-16s %10s %10s %10s %10s %8s %12s %12s %10s\n", "texts", "scan '['", "parse", "strip",
                "parse/scan", "target", "layout", "build_layout", "layout/parse");
    markup_result reused;
    std::wstring stripped;
    for (const group& g : groups) {
        const double scan = time_per_text(g.texts, 2000, [](const std::wstring& t) {
            sink = sink + scan_for_bracket(t);
        });
        const double parse = time_per_text(g.texts, 2000, [&](const std::wstring& t) {
            parse_markup(t, reused);
            sink = sink + reused.text().size() + reused.elements.size();
        });
        const double strip = time_per_text(g.texts, 2000, [&](const std::wstring& t) {
            strip_markup(t, stripped);
            sink = sink + stripped.size();
        });
        // What a list view does for a visible cell: a DirectWrite layout of the plain text,
        // and the same with every element applied.
        const double layout = time_per_text(g.texts, 20, [&](const std::wstring& t) {
            parse_markup(t, reused);
            com_ptr<IDWriteTextLayout> l;
            throw_if_failed(dwrite->CreateTextLayout(reused.text().data(), UINT32(reused.text().size()), format.get(), 300,
                                                     20, l.put()));
            sink = sink + 1;
        });
        layout_options options;
        options.factory = dwrite.get();
        options.format = format.get();
        options.max_width = 300;
        options.max_height = 20;
        const double built = time_per_text(g.texts, 20, [&](const std::wstring& t) {
            // Collections and objects by number are not real here; leave them out.
            parse_markup(t, reused);
            std::erase_if(reused.elements, [](const markup_element& e) { return e.tag == L'F' || e.tag == L'r'; });
            sink = sink + build_layout(reused, options).inline_objects.size();
        });
        const bool has_markup = g.texts.front().find(L"[[[") != std::wstring::npos;
        std::printf("%-16s %8.1fns %8.1fns %8.1fns %9.2fx %7s %10.0fns %10.0fns %9.0fx\n", g.name, scan, parse, strip,
                    parse / scan, has_markup ? "<=3x" : "<=1.2x", layout, built, layout / parse);
    }
    return 0;
} catch (...) {
    std::fprintf(stderr, "benchmark failed: 0x%08lx\n", static_cast<unsigned long>(hresult_from_caught_exception()));
    return 1;
}
