#include "vantor/util/QMRedHighlighting.hpp"

#include <string>

namespace vantor::util {

void appendString(QMMutableAttributedString& receiver, std::string_view text,
                  bool /*highlight*/) {
  receiver.append(QMMutableAttributedString(std::string(text)));
}

}  // namespace vantor::util
