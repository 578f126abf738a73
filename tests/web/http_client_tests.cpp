// HttpClient against a real HTTPS server on loopback.

#include "web_test_support.h"

#include "nsm/archive.h"
#include "web/http_client.h"
#include "web/update_service.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

namespace {

using namespace tessel::web;
using web_test::code_of;
using web_test::run_task;
using web_test::server;

std::string expected_pattern(std::size_t size)
{
    std::string bytes(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(i & 0xFF);
    return bytes;
}

class http_client_test : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(client.initialize(server().base())); }

    // GET of a path on the server, the status checked, the body read with the given limit.
    auto fetch(std::wstring path, std::uint64_t limit = 1 << 24, stop_token stop = {})
    {
        return run_task<std::string>([this, path, limit, stop]() -> task<std::string> {
            const http_request request = co_await client.get(client.resolve(path), L"Accept: */*");
            throw_if_not_ok(request.handle());
            co_return co_await read_body_text(request, limit, stop);
        });
    }

    HttpClient client;
};

TEST_F(http_client_test, json_request_sends_agent_and_accept_and_reads_the_document)
{
    const auto [body, error] = run_task<std::string>([this]() -> task<std::string> {
        const http_request request = co_await client.get(client.resolve(L"echo"), L"Accept: application/json");
        EXPECT_EQ(http_status(request.handle()), 200u);
        co_return co_await read_body_text(request, max_response_size, {});
    });
    ASSERT_FALSE(error) << std::hex << code_of(error);
    EXPECT_NE(body->find("\"agent\": \"QMX Software tessel Library win7-compatible HTTP client. Version 1.0\""),
              std::string::npos)
        << *body;
    // WinINet may send its own "*/*" as well; the program's header must be among them.
    EXPECT_NE(body->find("application/json"), std::string::npos) << *body;

    // The service's document through the JSON archive, and the request address it came from.
    const std::wstring address = update_request_address(client.base_address(), 301001234, update_check_mode::on_demand);
    EXPECT_EQ(address, server().base() + L"dispatch/ulmo/checkforupdates?ver=301001234&mode=2");
    HttpClient packs;
    ASSERT_TRUE(packs.initialize(server().base() + L"packs/"));
    const auto [response, fetch_error] = run_task<update_response>(
        [&]() { return fetch_update_response(packs, 301001234, update_check_mode::automatic, {}); });
    ASSERT_FALSE(fetch_error) << std::hex << code_of(fetch_error);
    EXPECT_EQ(response->version, 301001234u);
    EXPECT_EQ(response->url, server().base() + L"files/installer.exe");
    ASSERT_EQ(response->language_packs.size(), 3u);
    EXPECT_EQ(response->language_packs[1].name, L"Fran\u00e7ais");
}

TEST_F(http_client_test, failures_carry_their_codes)
{
    // A 404 opens (the body is there to read) and then fails the request with E_INVALIDARG,
    // told to the user as the server's own answer.
    DWORD status = 0;
    const auto [opened, not_found] = run_task<bool>([&]() -> task<bool> {
        const http_request request = co_await client.get(client.resolve(L"status/404"), L"Accept: */*");
        status = http_status(request.handle());
        throw_if_not_ok(request.handle());
        co_return true;
    });
    EXPECT_EQ(status, 404u);
    EXPECT_EQ(code_of(not_found), E_INVALIDARG);
    HttpClient service;
    ASSERT_TRUE(service.initialize(server().base() + L"status/404/"));
    const auto check_failure = describe_failure(run_task<update_response>([&]() {
                                                    return fetch_update_response(service, 1, update_check_mode::on_demand, {});
                                                }).second);
    EXPECT_EQ(check_failure.code, E_INVALIDARG);
    EXPECT_EQ(check_failure.text, L"The server answered 404 (Not Found).");

    // A port nobody listens on fails with WinINet's own code.
    HttpClient refused;
    ASSERT_TRUE(refused.initialize(L"https://localhost:" + std::to_wstring(server().refused_port) + L"/"));
    const auto [nothing, refused_error] = run_task<bool>([&]() -> task<bool> {
        (void)co_await refused.get(refused.resolve(L"x"), L"Accept: */*");
        co_return true;
    });
    EXPECT_EQ(code_of(refused_error), HRESULT_FROM_WIN32(ERROR_INTERNET_CANNOT_CONNECT));

    // A body that breaks off is not taken for a complete one.
    EXPECT_EQ(code_of(fetch(L"cut").second), HRESULT_FROM_WIN32(ERROR_INTERNET_CONNECTION_ABORTED));

    // An answer that ended up at a plain http address is refused, wherever the redirect led.
    HttpClient redirected;
    ASSERT_TRUE(redirected.initialize(server().base() + L"redirect-http/"));
    EXPECT_EQ(code_of(run_task<update_response>([&]() {
                          return fetch_update_response(redirected, 1, update_check_mode::automatic, {});
                      }).second),
              e_insecure_address);
}

TEST_F(http_client_test, wrong_kind_member_fails_with_the_archives_message)
{
    HttpClient service;
    ASSERT_TRUE(service.initialize(server().base() + L"wrongkind/"));
    const auto [response, error] = run_task<update_response>(
        [&]() { return fetch_update_response(service, 301001234, update_check_mode::automatic, {}); });
    ASSERT_TRUE(error);
    try {
        std::rethrow_exception(error);
    } catch (const tessel::nsm::load_exception& e) {
        EXPECT_EQ(e.message(), L"Number expected");
    } catch (...) {
        ADD_FAILURE() << "not a load_exception";
    }
    EXPECT_EQ(describe_failure(error).code, e_bad_response);
    EXPECT_EQ(describe_failure(error).text, L"Number expected");
}

TEST_F(http_client_test, bodies_arrive_whole_slow_chunked_and_large)
{
    const auto [chunked, chunked_error] = fetch(L"chunked-slow");
    ASSERT_FALSE(chunked_error) << std::hex << code_of(chunked_error);
    std::string twenty_parts;
    for (int i = 0; i < 20; ++i)
        twenty_parts += expected_pattern(1000);
    EXPECT_TRUE(*chunked == twenty_parts) << chunked->size();

    constexpr std::size_t large = 1536 * 1024 + 7;
    const auto [body, error] = fetch(L"bytes/" + std::to_wstring(large));
    ASSERT_FALSE(error) << std::hex << code_of(error);
    ASSERT_EQ(body->size(), large);
    EXPECT_TRUE(*body == expected_pattern(large));

    // Announced beyond the limit: refused before reading.
    EXPECT_EQ(code_of(fetch(L"bytes/" + std::to_wstring(large), large - 1).second),
              HRESULT_FROM_WIN32(ERROR_FILE_TOO_LARGE));
}

TEST_F(http_client_test, cancellation_while_a_read_is_pending_ends_the_transfer_at_its_next_step)
{
    struct counting_sink final : body_sink {
        std::atomic<std::uint64_t> written{0};
        void write(const void*, DWORD size) override { written += size; }
    };
    auto cancelled = std::make_shared<fibra::details::cancellation_source_body>();
    counting_sink sink;
    std::atomic<bool> done{false};
    std::exception_ptr error;
    const tessel::unique_hhook hook = tessel::windows::impl::install_ui_return_hook();
    [](HttpClient& client, counting_sink& sink, stop_token stop, std::exception_ptr& error,
       std::atomic<bool>& done) -> fibra::fire_and_forget {
        try {
            const http_request request = co_await client.get(client.resolve(L"hold/cancelled-read"), L"Accept: */*");
            (void)co_await read_body(request, sink, 1 << 20, stop, 64 * 1024);
        } catch (...) {
            error = std::current_exception();
        }
        done = true;
    }(client, sink, stop_token{nullptr, cancelled}, error, done);

    // The server sends 100000 bytes and holds the rest: the read after them waits.
    web_test::pump_until_or_die([&] { return sink.written.load() >= 100000 || done.load(); }, 10000, "the first part");
    ASSERT_FALSE(done.load()) << std::hex << code_of(error);
    // The rest comes after the cancellation: the transfer ends at that step, taking nothing more.
    cancelled->cancel();
    EXPECT_TRUE(web_test::release_held_response(L"cancelled-read"));
    web_test::pump_until_or_die([&] { return done.load(); }, 15000, "the cancelled read");
    EXPECT_EQ(code_of(error), E_ABORT);
    EXPECT_EQ(sink.written.load(), 100000u);
}

TEST_F(http_client_test, address_too_long_resolves_to_empty_and_fails_to_open)
{
    const std::wstring long_path(max_address_length + 1, L'a');
    EXPECT_EQ(client.resolve(long_path), L"");
    EXPECT_EQ(client.resolve(L"a b"), server().base() + L"a%20b");
    const auto [opened, error] = run_task<bool>([this, long_path]() -> task<bool> {
        (void)co_await client.get(client.resolve(long_path), L"Accept: */*");
        co_return true;
    });
    EXPECT_EQ(code_of(error), HRESULT_FROM_WIN32(ERROR_INTERNET_INVALID_URL));
}

}  // namespace
