# Writes the files of the page in PAGE as C++ source OUT: one raw string literal each, so that a
# debugger shows them as they are. Run with cmake -P.
set(LIMIT 102400) # bytes of all files together: the page stays small enough to be read
set(TYPE_html "text/html; charset=utf-8")
set(TYPE_css "text/css; charset=utf-8")
set(TYPE_js "text/javascript; charset=utf-8")
set(TYPE_svg "image/svg+xml")

file(GLOB_RECURSE files RELATIVE ${PAGE} ${PAGE}/*.html ${PAGE}/*.css ${PAGE}/*.js ${PAGE}/*.svg)
list(SORT files)
set(rows "")
set(total 0)
foreach(name IN LISTS files)
  file(SIZE ${PAGE}/${name} size)
  math(EXPR total "${total} + ${size}")
  file(READ ${PAGE}/${name} content)
  string(FIND "${content}" ")page\"" closing)
  if(NOT closing EQUAL -1)
    message(FATAL_ERROR "${name} holds what ends a raw string")
  endif()
  string(REGEX MATCH "[a-z]+$" suffix ${name})
  set(path "/${name}")
  if(name STREQUAL "index.html")
    set(path "/")
  endif()
  string(APPEND rows "    {\"${path}\", \"${TYPE_${suffix}}\", R\"page(${content})page\"},\n")
endforeach()
if(total GREATER_EQUAL LIMIT)
  message(FATAL_ERROR "the page has ${total} bytes, ${LIMIT} are its limit")
endif()

set(source "#include \"console/page_files.h\"

namespace orv {
namespace {

constexpr PageFile kFiles[] = {
${rows}};

}  // namespace

std::span<const PageFile> page_files() { return kFiles; }

const PageFile* find_page_file(std::string_view path) {
  for (const PageFile& file : kFiles) {
    if (file.path == path) return &file;
  }
  return nullptr;
}

}  // namespace orv
")
file(WRITE ${OUT} "${source}")
