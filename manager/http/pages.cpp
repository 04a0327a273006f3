#include "http/pages.h"

#include "http/gate.h"
#include "http/range.h"
#include "http/tokens.h"

#include <fstream>
#include <stdexcept>

namespace kestrune::manager {
namespace {

namespace fs = std::filesystem;

constexpr uintmax_t FILE_MAX = 16 * 1024 * 1024; // bytes
constexpr const char *NO_PAGE =
    "<!doctype html>\n<html lang=\"en\"><meta charset=\"utf-8\"><title>kestrune</title>\n"
    "<p>kestrune-manager was built without its web page. Its interface is below /api/v1.\n";

struct type_t {
    const char *extension;
    const char *content_type;
};
constexpr type_t TYPES[] = {
    {".html", "text/html; charset=utf-8"},
    {".js", "text/javascript; charset=utf-8"},
    {".css", "text/css; charset=utf-8"},
    {".svg", "image/svg+xml"},
};

const char *type_of(const fs::path &file)
{
    for (const type_t &type : TYPES) {
        if (file.extension() == type.extension) {
            return type.content_type;
        }
    }
    return nullptr;
}

std::string read_file(const fs::path &path)
{
    const uintmax_t size = fs::file_size(path);
    std::ifstream file(path, std::ios::binary);
    std::string text(size <= FILE_MAX ? size : 0, '\0');
    if (size > FILE_MAX || !file.read(text.data(), static_cast<std::streamsize>(text.size()))) {
        throw std::runtime_error(path.string() + ": cannot be read");
    }
    return text;
}

// One element of a list like "gzip, br;q=0.5": gzip, unless its weight is 0.
bool names_gzip(std::string_view element)
{
    const size_t begin = element.find_first_not_of(" \t");
    element.remove_prefix(begin == std::string_view::npos ? element.size() : begin);
    if (!element.starts_with("gzip")) {
        return false;
    }
    const std::string_view rest = element.substr(4);
    const size_t weight = rest.find("q=0");
    const bool refused = weight != std::string_view::npos &&
                         rest.find_first_not_of(".0 \t", weight + 3) == std::string_view::npos;
    return !refused && (rest.empty() || rest[0] == ';' || rest[0] == ' ');
}

bool takes_gzip(std::string_view field)
{
    while (!field.empty()) {
        const size_t comma = field.find(',');
        if (names_gzip(field.substr(0, comma))) {
            return true;
        }
        field = comma == std::string_view::npos ? std::string_view() : field.substr(comma + 1);
    }
    return false;
}

} // namespace

pages_t pages_t::read(const fs::path &folder)
{
    pages_t pages;
    if (!fs::is_regular_file(folder / "index.html")) {
        pages.pages_["/"] = {TYPES[0].content_type, NO_PAGE, "", "\"none\"", false};
        return pages;
    }
    pages.add("/", folder / "index.html");
    for (const fs::directory_entry &entry : fs::directory_iterator(folder / "assets")) {
        if (entry.is_regular_file() && type_of(entry.path()) != nullptr) {
            pages.add("/assets/" + entry.path().filename().string(), entry.path());
        }
    }
    return pages;
}

void pages_t::add(const std::string &path, const fs::path &file)
{
    page_t page;
    page.content_type = type_of(file);
    page.body = read_file(file);
    const fs::path compressed = file.string() + ".gz";
    if (fs::is_regular_file(compressed)) {
        page.compressed = read_file(compressed);
    }
    page.etag = "\"" + sha256_hex(page.body) + "\"";
    page.immutable = path != "/";
    pages_[path] = std::move(page);
}

http_answer_t pages_t::answer(const http_request_t &request) const
{
    const auto found = pages_.find(path_of(request.target));
    if (found == pages_.end()) {
        return problem(404, "there is no such file of the page");
    }
    const page_t &page = found->second;
    http_answer_t answer;
    answer.page = true;
    answer.cache = page.immutable ? "public, max-age=31536000, immutable" : "no-cache";
    answer.fields = {{"ETag", page.etag}, {"Vary", "Accept-Encoding"}};
    if (request.fields.if_none_match && matches_etag(*request.fields.if_none_match, page.etag)) {
        answer.status = 304;
        return answer;
    }
    answer.content_type = page.content_type;
    const bool compressed =
        !page.compressed.empty() && takes_gzip(request.fields.accept_encoding.value_or(""));
    answer.body = compressed ? page.compressed : page.body;
    if (compressed) {
        answer.fields.emplace_back("Content-Encoding", "gzip");
    }
    return answer;
}

fs::path page_folder()
{
    std::error_code unknown;
    const fs::path folder = fs::read_symlink("/proc/self/exe", unknown).parent_path();
    const fs::path built = folder / "web";
    return fs::is_regular_file(built / "index.html", unknown) ? built
                                                              : folder.parent_path() / "share/kestrune/web";
}

} // namespace kestrune::manager
