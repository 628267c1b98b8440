#include "trace_floor.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#define LOG "/mnt/pss/data_morph.log"

static void put(int fd, const char *text, size_t size) {
  if (write(fd, text, size) != (ssize_t)size) {
    _exit(98);
  }
}

static void rotate(void) {
  rename(LOG, "/mnt/pss/data_morph.last");
  close(open(LOG, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0700));
  sync();
}

void trace_floor(const char *line) {
  static const char prefix[] = "<Thu Jan  1 00:00:00 1970> ";
  char text[1024];
  const size_t length = strlen(line);
  struct stat status;
  int fd;

  put(2, line, length);
  fd = open("/tmp/datamorphcheck", O_RDONLY | O_CLOEXEC);
  close(fd);
  put(2, "File check succeeded\n", 21);
  put(2, "File exists\n", 12);
  fd = open(LOG, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  memcpy(text, prefix, sizeof prefix - 1);
  memcpy(text + sizeof prefix - 1, line, length);
  put(fd, text, sizeof prefix - 1 + length);
  fsync(fd);
  close(fd);
  if (access(LOG, F_OK) == 0 && stat(LOG, &status) == 0 && status.st_size > 50000) {
    rotate();
  }
}
