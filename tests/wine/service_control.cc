// Sends a pause or continue control to a service and prints the state it
// reports: Wine's sc has neither.
//   service-control.exe KOVRAN pause|continue
// With "hold" it only waits until it is ended: Wine ends its services as
// soon as no ordinary Wine process is left.
#include <windows.h>

#include <cstdio>
#include <cstring>

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], "hold") == 0) {
    ::Sleep(INFINITE);
    return 0;
  }
  if (argc != 3) return 2;
  const bool pause = std::strcmp(argv[2], "pause") == 0;
  SC_HANDLE manager = ::OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT);
  if (!manager) return 1;
  SC_HANDLE service =
      ::OpenServiceA(manager, argv[1], SERVICE_PAUSE_CONTINUE | SERVICE_QUERY_STATUS);
  SERVICE_STATUS status{};
  const bool sent =
      service && ::ControlService(service, pause ? SERVICE_CONTROL_PAUSE
                                                 : SERVICE_CONTROL_CONTINUE,
                                  &status);
  if (!sent) {
    std::printf("error %lu\n", ::GetLastError());
  } else {
    std::printf("state %lu\n", status.dwCurrentState);
  }
  if (service) ::CloseServiceHandle(service);
  ::CloseServiceHandle(manager);
  return sent ? 0 : 1;
}
