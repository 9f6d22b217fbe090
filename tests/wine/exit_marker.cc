// Stands in for EXIT.EXE in the Wine scenario: leaves EXIT.RAN beside itself
// and ends. It never switches anything off.
#include <windows.h>

#include <string>

int main() {
  wchar_t path[MAX_PATH];
  const DWORD n = ::GetModuleFileNameW(nullptr, path, MAX_PATH);
  std::wstring marker(path, n);
  marker = marker.substr(0, marker.find_last_of(L'\\') + 1) + L"EXIT.RAN";
  const HANDLE file = ::CreateFileW(marker.c_str(), GENERIC_WRITE, 0, nullptr,
                                    CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return 1;
  DWORD written = 0;
  ::WriteFile(file, "ran\r\n", 5, &written, nullptr);
  ::CloseHandle(file);
  return 0;
}
