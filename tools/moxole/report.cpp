#include "tools/moxole/report.h"

#include <stdio.h>
#include <string.h>

#include "tools/moxole/progress.h"

namespace moxole {

int fail(int status, const std::string& subject, const std::string& message) {
  // A progress line may be on the terminal; the message must not share it.
  Progress::clearLine();
  if (subject.empty()) {
    fprintf(stderr, "moxole: %s\n", message.c_str());
  } else {
    fprintf(stderr, "moxole: %s: %s\n", subject.c_str(), message.c_str());
  }
  return status;
}

std::string damagedText(const std::string& reason) {
  if (reason.empty()) {
    return "damaged compound file (its header, allocation tables or directory cannot be read)";
  }
  return "damaged compound file: " + reason;
}

std::string withoutFileName(const std::string& text, const std::string& file) {
  const std::string prefix = file + ": ";
  return text.compare(0, prefix.size(), prefix) == 0 ? text.substr(prefix.size()) : text;
}

std::string errorText(int error) {
  // Messages read better in lower case after a colon: "no such file".
  std::string text = strerror(error);
  if (!text.empty() && text[0] >= 'A' && text[0] <= 'Z' &&
      !(text.size() > 1 && text[1] >= 'A' && text[1] <= 'Z')) {
    text[0] = static_cast<char>(text[0] - 'A' + 'a');
  }
  return text;
}

}  // namespace moxole
