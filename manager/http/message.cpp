#include "http/message.h"

#include "forms/forms.h"

#include <ctime>

namespace kestrune::manager {
namespace {

struct phrase_t {
    unsigned status;
    const char *text;
};

constexpr phrase_t PHRASES[] = {
    {200, "OK"},
    {201, "Created"},
    {202, "Accepted"},
    {204, "No Content"},
    {206, "Partial Content"},
    {304, "Not Modified"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {408, "Request Timeout"},
    {409, "Conflict"},
    {413, "Content Too Large"},
    {415, "Unsupported Media Type"},
    {416, "Range Not Satisfiable"},
    {417, "Expectation Failed"},
    {422, "Unprocessable Content"},
    {429, "Too Many Requests"},
    {431, "Request Header Fields Too Large"},
    {500, "Internal Server Error"},
    {503, "Service Unavailable"},
    {507, "Insufficient Storage"},
};

// Nothing that this interface answers is to be run, framed, or guessed at by a browser.
constexpr const char *COMMON_FIELDS = "X-Content-Type-Options: nosniff\r\n"
                                      "X-Frame-Options: DENY\r\n"
                                      "Referrer-Policy: no-referrer\r\n"
                                      "Cross-Origin-Opener-Policy: same-origin\r\n"
                                      "Cross-Origin-Resource-Policy: same-origin\r\n";
constexpr const char *DATA_POLICY = "Content-Security-Policy: default-src 'none'; base-uri 'none'; "
                                    "form-action 'none'; frame-ancestors 'none'\r\n";
constexpr const char *PAGE_POLICY =
    "Content-Security-Policy: default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
    "font-src 'self'; connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'; "
    "require-trusted-types-for 'script'; trusted-types 'none'\r\n";

std::string date_text()
{
    const time_t now = time(nullptr);
    tm utc = {};
    gmtime_r(&now, &utc);
    char text[64];
    std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT", &utc);
    return text;
}

bool has_body(unsigned status)
{
    return status != 204 && status != 304;
}

} // namespace

std::string_view reason_phrase(unsigned status)
{
    for (const phrase_t &phrase : PHRASES) {
        if (phrase.status == status) {
            return phrase.text;
        }
    }
    return "Unknown";
}

http_answer_t problem(unsigned status, std::string_view detail, std::string_view field)
{
    http_answer_t answer;
    answer.status = status;
    answer.content_type = "application/problem+json";
    answer.body = problem_json(status, reason_phrase(status), detail, field);
    return answer;
}

http_answer_t json_answer(unsigned status, std::string body)
{
    http_answer_t answer;
    answer.status = status;
    answer.content_type = "application/json";
    answer.body = std::move(body);
    return answer;
}

std::string header_text(const http_answer_t &answer, bool keep_alive)
{
    std::string text = "HTTP/1.1 " + std::to_string(answer.status) + " ";
    text.append(reason_phrase(answer.status)).append("\r\nDate: ").append(date_text()).append("\r\n");
    if (!answer.content_type.empty()) {
        text.append("Content-Type: ").append(answer.content_type).append("\r\n");
    }
    if (has_body(answer.status) && !answer.stream) {
        const uint64_t length = answer.file ? answer.file->length : answer.body.size();
        text.append("Content-Length: ").append(std::to_string(length)).append("\r\n");
    }
    text.append(COMMON_FIELDS).append(answer.page ? PAGE_POLICY : DATA_POLICY);
    const std::string cache = answer.file ? "private, no-cache" : "no-store";
    text.append("Cache-Control: ").append(answer.cache.empty() ? cache : answer.cache).append("\r\n");
    for (const auto &[name, value] : answer.fields) {
        text.append(name).append(": ").append(value).append("\r\n");
    }
    text.append(keep_alive ? "\r\n" : "Connection: close\r\n\r\n");
    return text;
}

} // namespace kestrune::manager
