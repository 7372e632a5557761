#include "failing_unlink.h"

#include "core/list.h"

namespace scripted {

int UnlinksToFail = 0;

} // namespace scripted

// The linker sends the daemon's calls to the wrapper, by the function's mangled name (see CMakeLists.txt).
int real_list_remove_node(list *from, list_node *node) __asm__("__real__Z16list_remove_nodeP4listP9list_node");
int wrapped_list_remove_node(list *from, list_node *node) __asm__("__wrap__Z16list_remove_nodeP4listP9list_node");

int wrapped_list_remove_node(list *from, list_node *node) {
  if (scripted::UnlinksToFail > 0) {
    --scripted::UnlinksToFail;
    return -1;
  }
  return real_list_remove_node(from, node);
}
