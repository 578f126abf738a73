#pragma once
// Where the console companion's text goes and where a key comes from.
//
// On a console, text goes through the console's wide output, so every letter the console
// font has survives whatever code page the console is set to; redirected to a file or a
// pipe, it goes out as UTF-8 bytes, which scripts and other tools read. Neither passes
// through the C runtime, whose text mode would mangle both.

#include <windows.h>

#include <string>
#include <string_view>

namespace servercfg::console {

class text_sink {
public:
    virtual ~text_sink() = default;
    virtual void write(std::wstring_view text) = 0;
    void line(std::wstring_view text)
    {
        write(text);
        write(L"\n");
    }
};

// Standard output or standard error. A failed write is dropped: a closed pipe must not end
// a change half-way.
class stream_sink final : public text_sink {
public:
    explicit stream_sink(DWORD standard_handle) noexcept;
    void write(std::wstring_view text) override;
    [[nodiscard]] bool is_console() const noexcept { return console_; }

private:
    HANDLE handle_;
    bool console_;
};

// Collects what is written (tests, benchmarks).
class string_sink final : public text_sink {
public:
    void write(std::wstring_view text) override { text_ += text; }
    [[nodiscard]] const std::wstring& text() const noexcept { return text_; }

private:
    std::wstring text_;
};

// The key given on standard input: a line typed at the console (not echoed), or the first
// line of whatever is piped in (at most 64 KB read). Throws fibra::details::hresult_error.
[[nodiscard]] std::wstring read_key_from_standard_input();

}  // namespace servercfg::console
