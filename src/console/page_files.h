// The page: HTML, style and modules of JavaScript, compiled into the program.
#ifndef ORV_CONSOLE_PAGE_FILES_H_
#define ORV_CONSOLE_PAGE_FILES_H_

#include <span>
#include <string_view>

namespace orv {

struct PageFile {
  std::string_view path;  // as it is asked for: "/app.js"; "/" is index.html
  std::string_view type;  // Content-Type
  std::string_view content;
};

// All files of the page. Made by cmake/embed_page.cmake from src/console/page/.
[[nodiscard]] std::span<const PageFile> page_files();

// The file of that path; null when there is none.
[[nodiscard]] const PageFile* find_page_file(std::string_view path);

}  // namespace orv

#endif  // ORV_CONSOLE_PAGE_FILES_H_
