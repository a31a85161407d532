// ferrolt.exe as other programs use it: a module whose HID exports they look
// up and call. The test binds the module's imports itself (see BindImports),
// and binds CreateFileW to a recorder that shows how each device was asked
// for before the system opens it. No device of ours is attached.
#include <windows.h>
// After windows.h, which they need.
#include <cfgmgr32.h>
#include <devpropdef.h>

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <hidapi.h>

namespace ferrolt::test {
namespace {

constexpr const char* kExports[] = {
    "hid_init",
    "hid_exit",
    "hid_enumerate",
    "hid_free_enumeration",
    "hid_open",
    "hid_open_path",
    "hid_open_path_w_mode",
    "hid_get_windows_handle",
    "hid_write",
    "hid_read",
    "hid_read_timeout",
    "hid_set_nonblocking",
    "hid_send_feature_report",
    "hid_get_feature_report",
    "hid_get_manufacturer_string",
    "hid_get_product_string",
    "hid_get_serial_number_string",
    "hid_get_indexed_string",
    "hid_error",
    "hid_close",
};

struct OpenRequest {
  DWORD access;
  DWORD share;
};

std::vector<OpenRequest> open_requests;

// CreateFileW as ferrolt.exe sees it: the system's, each call recorded.
HANDLE WINAPI RecordedCreateFile(LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                                 DWORD disposition, DWORD flags, HANDLE template_file) {
  open_requests.push_back({access, share});
  return CreateFileW(path, access, share, security, disposition, flags, template_file);
}

// Wine 8.0's cfgmgr32.dll lacks CM_Get_Device_Interface_PropertyW, which
// hid_init looks up with the rest. hidapi asks it only of a Bluetooth device
// it lists, and Wine lists none; here it answers as Windows does for an
// interface that is not there.
CONFIGRET WINAPI AbsentInterfaceProperty(LPCWSTR, const DEVPROPKEY*, DEVPROPTYPE*, PBYTE, PULONG, ULONG) {
  return CR_NO_SUCH_DEVICE_INTERFACE;
}

FARPROC WINAPI GetProcAddressOrStandIn(HMODULE library, LPCSTR name) {
  FARPROC function = GetProcAddress(library, name);
  const bool by_name = HIWORD(reinterpret_cast<ULONG_PTR>(name)) != 0;
  if (function == nullptr && by_name && std::strcmp(name, "CM_Get_Device_Interface_PropertyW") == 0) {
    return reinterpret_cast<FARPROC>(AbsentInterfaceProperty);
  }
  return function;
}

template <typename T>
T* At(HMODULE module, DWORD offset) {
  return reinterpret_cast<T*>(reinterpret_cast<BYTE*>(module) + offset);
}

FARPROC BoundFunction(HMODULE library, const char* symbol) {
  const bool by_name = HIWORD(reinterpret_cast<ULONG_PTR>(symbol)) != 0;
  if (by_name && std::strcmp(symbol, "CreateFileW") == 0) return reinterpret_cast<FARPROC>(RecordedCreateFile);
  if (by_name && std::strcmp(symbol, "GetProcAddress") == 0) return reinterpret_cast<FARPROC>(GetProcAddressOrStandIn);
  return GetProcAddress(library, symbol);
}

// Binds the imports of a module, as Windows' loader does for every module it
// maps, an .exe loaded with LoadLibrary included: Wine (8.0) binds those of
// DLLs alone, and leaves an .exe's import address table holding the offsets
// of the names.
bool BindImports(HMODULE module) {
  const auto* dos = At<IMAGE_DOS_HEADER>(module, 0);
  const auto* nt = At<IMAGE_NT_HEADERS64>(module, dos->e_lfanew);
  const IMAGE_DATA_DIRECTORY& imports = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
  for (auto* entry = At<IMAGE_IMPORT_DESCRIPTOR>(module, imports.VirtualAddress); entry->Name != 0; ++entry) {
    HMODULE library = LoadLibraryA(At<char>(module, entry->Name));
    if (library == nullptr) return false;
    const auto* name = At<IMAGE_THUNK_DATA64>(module, entry->OriginalFirstThunk);
    auto* slot = At<IMAGE_THUNK_DATA64>(module, entry->FirstThunk);
    for (; name->u1.AddressOfData != 0; ++name, ++slot) {
      const char* symbol = IMAGE_SNAP_BY_ORDINAL64(name->u1.Ordinal)
                               ? MAKEINTRESOURCEA(IMAGE_ORDINAL64(name->u1.Ordinal))
                               : At<IMAGE_IMPORT_BY_NAME>(module, name->u1.AddressOfData)->Name;
      FARPROC function = BoundFunction(library, symbol);
      DWORD protection = 0;
      if (function == nullptr || !VirtualProtect(slot, sizeof *slot, PAGE_READWRITE, &protection)) return false;
      slot->u1.Function = reinterpret_cast<ULONGLONG>(function);
      VirtualProtect(slot, sizeof *slot, protection, &protection);
    }
  }
  return true;
}

// hidapi's error texts are ASCII: shown as they are.
std::string Narrow(const wchar_t* text) { return std::string(text, text + wcslen(text)); }

bool StartsWith(const wchar_t* text, const char* start) { return Narrow(text).rfind(start, 0) == 0; }

const std::filesystem::path kExe = std::filesystem::absolute(FERROLT_EXE).make_preferred();
constexpr const char* kAbsentHidPath = R"(\\?\hid#vid_1209&pid_0001#0&0&0#{4d1e55b2-f16f-11cf-88cb-001111000030})";
constexpr DWORD kSharedBothWays = FILE_SHARE_READ | FILE_SHARE_WRITE;

// Given ferrolt.exe loaded as a module, its imports bound.
class HidExportsTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    module_ = LoadLibraryW(kExe.c_str());
    if (module_ != nullptr && !BindImports(module_)) module_ = nullptr;
  }
  void SetUp() override {
    ASSERT_NE(module_, nullptr) << kExe;
    open_requests.clear();
  }

  template <typename Function>
  static Function* Export(const char* name) {
    return reinterpret_cast<Function*>(GetProcAddress(module_, name));
  }

  static HMODULE module_;
};

HMODULE HidExportsTest::module_ = nullptr;

// It finds every one of the twenty names.
TEST_F(HidExportsTest, EveryNameIsExported) {
  for (const char* name : kExports) EXPECT_NE(GetProcAddress(module_, name), nullptr) << name;
}

// It starts hidapi, lists the HID devices there are (Wine's own, if any),
// frees the list and ends.
TEST_F(HidExportsTest, ListsDevicesWithoutOneOfOurs) {
  ASSERT_EQ(Export<decltype(hid_init)>("hid_init")(), 0) << Narrow(Export<decltype(hid_error)>("hid_error")(nullptr));
  hid_device_info* devices = Export<decltype(hid_enumerate)>("hid_enumerate")(0, 0);
  for (const hid_device_info* device = devices; device != nullptr; device = device->next) {
    EXPECT_NE(device->path, nullptr);
  }
  Export<decltype(hid_free_enumeration)>("hid_free_enumeration")(devices);
  EXPECT_EQ(Export<decltype(hid_exit)>("hid_exit")(), 0);
}

// Each mode asks for its access and sharing, on every attempt, and a path
// that is no HID device opens nothing: hid_error names the step that refused
// it (the open itself, or the first HID request on a file that opened).
TEST_F(HidExportsTest, EachModeOpensWithItsAccessAndSharing) {
  auto* const open_in_mode = Export<hid_device*(const char*, int)>("hid_open_path_w_mode");
  auto* const open_path = Export<decltype(hid_open_path)>("hid_open_path");
  const std::string exe = kExe.string();
  struct Case {
    std::string path;
    std::optional<int> mode;  // none: hid_open_path
    DWORD access;
    DWORD share;
    const char* error_start;
  };
  const Case cases[] = {
      {kAbsentHidPath, -3, 0, kSharedBothWays, "open_device: (0x00000002)"},
      {kAbsentHidPath, 0, 0, kSharedBothWays, "open_device: (0x00000002)"},
      {kAbsentHidPath, 1, GENERIC_READ, 0, "open_device: (0x00000002)"},
      {kAbsentHidPath, 4, GENERIC_READ, 0, "open_device: (0x00000002)"},
      {kAbsentHidPath, std::nullopt, 0, kSharedBothWays, "open_device: (0x00000002)"},
      {exe, 0, 0, kSharedBothWays, "set input buffers: "},
      {exe, std::nullopt, 0, kSharedBothWays, "set input buffers: "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path + (c.mode ? " mode " + std::to_string(*c.mode) : " hid_open_path"));
    open_requests.clear();
    EXPECT_EQ(c.mode ? open_in_mode(c.path.c_str(), *c.mode) : open_path(c.path.c_str()), nullptr);
    ASSERT_FALSE(open_requests.empty());
    for (const OpenRequest& request : open_requests) {
      EXPECT_EQ(request.access, c.access);
      EXPECT_EQ(request.share, c.share);
    }
    const wchar_t* error = Export<decltype(hid_error)>("hid_error")(nullptr);
    EXPECT_TRUE(StartsWith(error, c.error_start)) << Narrow(error);
  }
}

// A path that is no UTF-8 is refused before anything is opened.
TEST_F(HidExportsTest, PathOfNoUtf8IsRefused) {
  for (int mode : {0, 1}) {
    EXPECT_EQ(Export<hid_device*(const char*, int)>("hid_open_path_w_mode")("\xff\xfe", mode), nullptr);
    EXPECT_TRUE(open_requests.empty());
    const wchar_t* error = Export<decltype(hid_error)>("hid_error")(nullptr);
    EXPECT_TRUE(StartsWith(error, "Path conversion failure")) << Narrow(error);
  }
}

}  // namespace
}  // namespace ferrolt::test
