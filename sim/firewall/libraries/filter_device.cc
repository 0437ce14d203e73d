// Stands in for the driver behind "/dev/zem-gatr", which in a simulated node is a plain file: the library is
// loaded in front of the C library and answers the driver's requests on descriptors of that file.  All other
// requests go to the kernel.

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>

#include "platform/firewall/filter_device.h"
#include "sim/firewall/tree/firewall_tree.h"
#include "sim/switch/tree/library_call.h"

namespace {

bool IsFilterDevice(int fd) {
  struct stat device {};
  struct stat opened {};
  return ::stat(FW_DEVICE, &device) == 0 && ::fstat(fd, &opened) == 0 && device.st_dev == opened.st_dev &&
         device.st_ino == opened.st_ino;
}

}  // namespace

ZEM_SIM_EXPORT int ioctl(int fd, unsigned long request, ...) {
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  if ((request == FW_REQUEST_FILTER_COUNT || request == FW_REQUEST_FILTERS) && IsFilterDevice(fd)) {
    return zem::sim::firewall::ServeRequest(request, static_cast<FW_DeviceHeader*>(argument));
  }
  return static_cast<int>(::syscall(SYS_ioctl, fd, request, argument));
}
