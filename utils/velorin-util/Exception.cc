// The exception type. See velorin/Exception.
#include "velorin/Exception"

#include <new>

#include "velorin/Logger"
#include "velorin/String"

namespace {

std::string whereCaught(const char* file, int line) {
  return std::string("Caught an exception at \"") + (file != nullptr ? file : "(null)") +
         "\" line " + Str(line, 10, 1);
}

}  // namespace

Exception::Exception(const std::string& details) : details_(details) {}

Exception::Exception(int id, const std::string& details) : id_(id), details_(details) {}

std::string Exception::toString() const {
  std::string text = Str(id_, 10, 1);
  if (!details_.empty()) text.append(" \"").append(details_).append("\"");
  return text;
}

bool Exception::operator==(const Exception& other) const {
  return id_ == other.id_ && details_ == other.details_;
}

bool Exception::operator<(const Exception& other) const {
  return id_ != other.id_ ? id_ < other.id_ : details_ < other.details_;
}

void Exception::caught(const char* file, int line) const {
  std::string message;
  try {
    message = whereCaught(file, line) + ": " + toString();
  } catch (const std::bad_alloc&) {
    AD_ERRO("Caught an exception at \"%s\" line %d: %d \"%s\"", file, line, id_, details_.c_str());
    return;
  }
  Logger::warn(message);
}

void Exception_caught(const char* file, int line) {
  std::string message;
  try {
    message = whereCaught(file, line);
  } catch (const std::bad_alloc&) {
    AD_ERRO("Caught an exception at \"%s\" line %d", file, line);
    return;
  }
  Logger::warn(message);
}
