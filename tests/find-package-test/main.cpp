#include <kovathumb/error.h>
#include <kovathumb/thumb.h>

int main() {
  try {
    kovathumb::Thumb thumb("/no/such/photo.jpg", 0, false);
  } catch (const kovathumb::Error& e) {
    return e.Code() == 601 ? 0 : 1;
  }
  return 1;
}
