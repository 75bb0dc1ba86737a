/* A C99 program using an installed kzlib: checked allocation, the array growth
 * rule and the per-thread error record. Exits 0 when every check holds. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kz/array.h"
#include "kz/error.h"
#include "kz/memory.h"

static int failures;

#define CHECK(condition)                                                            \
  do {                                                                              \
    if (!(condition)) {                                                             \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
      failures++;                                                                   \
    }                                                                               \
  } while (0)

int main(void) {
  char *text = (char *)Allocate(16, NULL);
  CHECK(text != NULL);
  strcpy(text, "installed kzlib");
  text = (char *)Allocate(64, text);
  CHECK(strcmp(text, "installed kzlib") == 0);
  free(text);

  CHECK(ArrayNextSize(0, 1, 4294967295u) == 4);

  KZErrorThrow(KZ_ERR_INVALID, "bad value %d", 7);
  CHECK(KZErrorCode() == KZ_ERR_INVALID);
  CHECK(KZErrorMessage() != NULL && strstr(KZErrorMessage(), "bad value 7") != NULL);
  KZErrorClear();
  CHECK(KZErrorCode() == 0);

  if (failures != 0) {
    fprintf(stderr, "%d check(s) failed\n", failures);
    return 1;
  }
  printf("kzlib consumer: all checks passed\n");
  return 0;
}
