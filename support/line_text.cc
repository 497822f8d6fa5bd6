#include "support/line_text.h"

namespace qv {

void line_text::grow(size_t n) {
  // Doubled at least, so that a line that keeps growing is moved a few
  // times only; the room stays with the string for the next line.
  size_t want = used_ + n + kSlack;
  if (want < 2 * s_.size()) want = 2 * s_.size();
  if (want < 1024) want = 1024;
  s_.resize(want);
}

}  // namespace qv
