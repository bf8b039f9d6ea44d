// Tables for people: columns as wide as their cells, counted in characters, in the colours of
// "orv_sched list".
#ifndef ORV_PLAN_TABLE_H_
#define ORV_PLAN_TABLE_H_

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace orv {

// What a row or a word means, and with it its colour.
enum class Tone { Plain, Good, Bad, Active, Waiting };
// The sequence that begins the tone; empty for Plain.
[[nodiscard]] const char* tone_sequence(Tone tone);
// `text` between the tone's sequence and the reset, or as it is without `color`.
[[nodiscard]] std::string toned(const std::string& text, Tone tone, bool color);

// Collects rows, then writes them all. Cells are texts for the terminal, free of control
// characters.
class Table {
 public:
  // `widths` are the least ones of the first columns, in characters; `gap` blanks lie between two.
  explicit Table(std::vector<std::string> header, std::vector<std::size_t> widths = {},
                 std::size_t gap = 2)
      : widths_(std::move(widths)), gap_(gap) {
    add(std::move(header));
  }
  // Missing cells are empty.
  void add(std::vector<std::string> cells, Tone tone = Tone::Plain);
  [[nodiscard]] bool empty() const { return rows_.size() == 1; }  // the header alone
  // Left-aligned; the last column is not padded. A cell of more than kWidest characters juts out of
  // its column.
  [[nodiscard]] std::string text(bool color) const;

 private:
  static constexpr std::size_t kWidest = 40;
  struct Row {
    std::vector<std::string> cells;
    Tone tone;
  };
  std::vector<std::size_t> widths_;  // of the columns so far, in characters
  std::size_t gap_;
  std::vector<Row> rows_;
};

}  // namespace orv

#endif  // ORV_PLAN_TABLE_H_
