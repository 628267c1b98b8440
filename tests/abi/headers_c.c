/* The platform's and the library's headers, as C11 sees them. */
#include "exports_checks.h"
#include "headers_checks.h"

int headers_c_signatures(void);
const char *headers_c_text(syserr_t status);

int headers_c_signatures(void) {
  return check_signatures();
}

const char *headers_c_text(syserr_t status) {
  return syserr2str(status);
}
