// The web page: its files, read into memory once. A request's path is looked up in a table and never reaches the file
// system.
//
// Threads: never changes once it is read.
#pragma once

#include "http/message.h"

#include <filesystem>
#include <map>
#include <string>

namespace kestrune::manager {

class pages_t {
public:
    // The folder as the page's build leaves it: index.html, assets/NAME, and NAME.gz beside each. A folder that is not
    // there makes a table with one page that says so. Throws std::runtime_error when a file cannot be read.
    static pages_t read(const std::filesystem::path &folder);

    // Of GET and HEAD. 404 for a path that the table lacks.
    http_answer_t answer(const http_request_t &request) const;

private:
    struct page_t {
        std::string content_type;
        std::string body;
        std::string compressed; // by gzip; empty: there is none
        std::string etag;
        bool immutable = false; // its name changes with its content
    };
    void add(const std::string &path, const std::filesystem::path &file);

    std::map<std::string, page_t, std::less<>> pages_; // by path of a request
};

// Where the page lies: web/ beside the program in a build, else ../share/kestrune/web from there.
std::filesystem::path page_folder();

} // namespace kestrune::manager
