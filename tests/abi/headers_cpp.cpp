// The platform's and the library's headers, as C++20 sees them.
#include "exports_checks.h"
#include "headers_checks.h"

int headers_cpp_signatures();
const char *headers_cpp_text(syserr_t status);

int headers_cpp_signatures() {
  return check_signatures();
}

const char *headers_cpp_text(syserr_t status) {
  return syserr2str(status);
}
