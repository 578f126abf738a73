// What a screen reader sees of a window, from another process: the IAccessible of its
// client area, its role, focus and children (name, role, state, value), one per line.
//   controls_accessibility_probe.exe <window handle in decimal> [command]...
// With commands, only what they print: "select <flags> <child id>" calls accSelect and
// prints its HRESULT, "selection" prints the selected child ids.
// Used by the controls tests, which start it against their own list and tree.

#include <windows.h>
#include <oleacc.h>

#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <string>

namespace {

std::string narrow(BSTR text)
{
    if (!text)
        return {};
    const int length = static_cast<int>(::SysStringLen(text));
    std::string out(static_cast<std::size_t>(length) * 3 + 1, '\0');
    out.resize(static_cast<std::size_t>(
        ::WideCharToMultiByte(CP_UTF8, 0, text, length, out.data(), static_cast<int>(out.size()), nullptr, nullptr)));
    ::SysFreeString(text);
    return out;
}

}  // namespace

int wmain(int argc, wchar_t** argv)
{
    if (argc < 2)
        return 2;
    const auto window = reinterpret_cast<HWND>(static_cast<INT_PTR>(std::wcstoll(argv[1], nullptr, 10)));
    ::CoInitialize(nullptr);
    IAccessible* object = nullptr;
    const HRESULT hr = ::AccessibleObjectFromWindow(window, static_cast<DWORD>(OBJID_CLIENT), IID_IAccessible,
                                                    reinterpret_cast<void**>(&object));
    if (FAILED(hr) || !object) {
        std::printf("error %08lx\n", static_cast<unsigned long>(hr));
        return 1;
    }
    if (argc > 2) {
        for (int i = 2; i < argc; ++i) {
            if (std::wcscmp(argv[i], L"select") == 0 && i + 2 < argc) {
                VARIANT child{};
                child.vt = VT_I4;
                child.lVal = std::wcstol(argv[i + 2], nullptr, 10);
                std::printf("select %08lx\n", static_cast<unsigned long>(
                                                  object->accSelect(std::wcstol(argv[i + 1], nullptr, 10), child)));
                i += 2;
            } else if (std::wcscmp(argv[i], L"selection") == 0) {
                VARIANT selection{};
                object->get_accSelection(&selection);
                std::string ids;
                IEnumVARIANT* items = nullptr;
                if (selection.vt == VT_I4)
                    ids = std::to_string(selection.lVal);
                else if (selection.vt == VT_UNKNOWN &&
                         SUCCEEDED(selection.punkVal->QueryInterface(IID_IEnumVARIANT, reinterpret_cast<void**>(&items)))) {
                    for (VARIANT item{}; items->Next(1, &item, nullptr) == S_OK;) {
                        if (!ids.empty())
                            ids += ',';
                        ids += std::to_string(item.lVal);
                    }
                    items->Release();
                }
                ::VariantClear(&selection);
                std::printf("selection %s\n", ids.empty() ? "none" : ids.c_str());
            }
        }
        object->Release();
        std::fflush(stdout);
        return 0;
    }
    VARIANT self{};
    self.vt = VT_I4;
    self.lVal = CHILDID_SELF;
    VARIANT role{};
    object->get_accRole(self, &role);
    long count = 0;
    object->get_accChildCount(&count);
    VARIANT focus{};
    object->get_accFocus(&focus);
    std::printf("role %ld count %ld focus %ld\n", role.vt == VT_I4 ? role.lVal : -1, count,
                focus.vt == VT_I4 ? focus.lVal : -1);
    for (long id = 1; id <= count && id <= 50; ++id) {
        VARIANT child{};
        child.vt = VT_I4;
        child.lVal = id;
        BSTR name = nullptr, value = nullptr;
        VARIANT child_role{}, state{};
        object->get_accName(child, &name);
        object->get_accValue(child, &value);
        object->get_accRole(child, &child_role);
        object->get_accState(child, &state);
        std::printf("child %ld|%s|%ld|%lx|%s\n", id, narrow(name).c_str(), child_role.lVal, state.lVal,
                    narrow(value).c_str());
    }
    object->Release();
    std::fflush(stdout);
    return 0;
}
