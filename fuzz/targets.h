// The fuzz targets: one for every parser of foreign bytes. Each takes any bytes and aborts when the
// parser breaks one of its promises. A fuzzer program runs one of them on what libFuzzer invents;
// the tests run all of them on the inputs of fuzz/corpus/<name>/.
//
// A new target is a function here, its file, its name in fuzz/CMakeLists.txt, a row in
// tests/fuzz/corpus_test.cc and a few inputs in its own directory of the corpus.
#ifndef ORV_FUZZ_TARGETS_H_
#define ORV_FUZZ_TARGETS_H_

#include <cstdlib>
#include <string_view>

namespace orv::fuzz {

void auth(std::string_view input);
void certificate(std::string_view input);
void config(std::string_view input);
void config_text(std::string_view input);
void ipc(std::string_view input);
void job_log(std::string_view input);
void json(std::string_view input);
void queue(std::string_view input);
void request(std::string_view input);

// Of the network process; not there when its libraries are missing.
void http(std::string_view input);
void mail(std::string_view input);
void smtp(std::string_view input);

// A promise of the code under test.
inline void require(bool holds) {
  if (!holds) std::abort();
}

}  // namespace orv::fuzz

#endif  // ORV_FUZZ_TARGETS_H_
