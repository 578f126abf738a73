#pragma once
// The control channel's wire format, shared by the server and ulmora-sim-ctl.
//
// One connection carries one command and its answer, each a single pipe message in
// UTF-8. A command is its words joined with line feeds (so words may hold spaces and
// need no quoting); an answer starts with "ok" or "error", a line feed, then text.

#include <string>
#include <string_view>
#include <vector>

namespace sim_server {

// The environment variable that names the control pipe; unset: default_pipe_name.
inline constexpr wchar_t pipe_variable[] = L"ULMORA_SIM_PIPE";
inline constexpr wchar_t default_pipe_name[] = L"\\\\.\\pipe\\qmx.ulmora.simserver";

// The pipe name from the environment, or the default.
[[nodiscard]] std::wstring control_pipe_name();

[[nodiscard]] std::string encode_command(const std::vector<std::wstring>& words);
[[nodiscard]] std::vector<std::wstring> decode_command(std::string_view message);

struct control_answer {
    bool ok = false;
    std::wstring text;
};

[[nodiscard]] std::string encode_answer(const control_answer& answer);
[[nodiscard]] control_answer decode_answer(std::string_view message);

// Sends one command to the server behind the pipe and waits for the answer, at most
// timeout_ms for the pipe to become free and as long again for the answer. Throws
// fibra::details::hresult_error when there is no server or it does not answer.
[[nodiscard]] control_answer send_command(const std::wstring& pipe_name, const std::vector<std::wstring>& words,
                                          unsigned timeout_ms = 5000);

}  // namespace sim_server
