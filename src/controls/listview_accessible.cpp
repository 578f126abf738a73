// The list view's face for screen readers: an IAccessible whose children are the rows
// (child id = row + 1), named by the plain text of their cells. The tree view's rows
// add their level (as the value, counted from 0 like the system's tree view) and their
// expanded or collapsed state.

#include "base/com_object.h"
#include "base/failure.h"
#include "controls/listview_state.h"

#include <oleacc.h>

#include <algorithm>
#include <vector>

namespace tessel::windows::new_controls::listview::impl {
namespace {

constexpr long max_children = long(max_accessible_rows);

HRESULT set_bstr(BSTR* out, const std::wstring& text) noexcept
{
    if (!out)
        return E_POINTER;
    *out = nullptr;
    if (text.empty())
        return S_FALSE;
    *out = ::SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
    return *out ? S_OK : E_OUTOFMEMORY;
}

// A snapshot of child ids, for a selection of more than one row.
class child_enumerator final : public com_object<IEnumVARIANT> {
public:
    explicit child_enumerator(std::vector<long> ids, std::size_t at = 0) : ids_(std::move(ids)), at_(at) {}

    HRESULT STDMETHODCALLTYPE Next(ULONG count, VARIANT* out, ULONG* fetched) noexcept override
    {
        if (!out)
            return E_POINTER;
        ULONG n = 0;
        for (; n < count && at_ < ids_.size(); ++n, ++at_) {
            ::VariantInit(&out[n]);
            out[n].vt = VT_I4;
            out[n].lVal = ids_[at_];
        }
        if (fetched)
            *fetched = n;
        return n == count ? S_OK : S_FALSE;
    }
    HRESULT STDMETHODCALLTYPE Skip(ULONG count) noexcept override
    {
        at_ = std::min(ids_.size(), at_ + count);
        return at_ < ids_.size() ? S_OK : S_FALSE;
    }
    HRESULT STDMETHODCALLTYPE Reset() noexcept override
    {
        at_ = 0;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Clone(IEnumVARIANT** out) noexcept override try {
        if (!out)
            return E_POINTER;
        *out = make_com_object<child_enumerator>(ids_, at_).detach();
        return S_OK;
    } catch (...) {
        return hresult_from_caught_exception();
    }

private:
    std::vector<long> ids_;
    std::size_t at_;
};

class list_accessible final : public com_object<IAccessible> {
public:
    explicit list_accessible(list_state* state) noexcept : s_(state) {}
    void detach() noexcept { s_ = nullptr; }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) noexcept override
    {
        if (out && iid == __uuidof(IDispatch)) {
            *out = static_cast<IDispatch*>(this);
            AddRef();
            return S_OK;
        }
        return com_object<IAccessible>::QueryInterface(iid, out);
    }

    // IDispatch: screen readers use the vtable.
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) noexcept override
    {
        if (count)
            *count = 0;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) noexcept override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) noexcept override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*,
                                     UINT*) noexcept override
    {
        return E_NOTIMPL;
    }

    HRESULT STDMETHODCALLTYPE get_accParent(IDispatch** parent) noexcept override
    {
        if (!parent)
            return E_POINTER;
        *parent = nullptr;
        if (!s_)
            return RPC_E_DISCONNECTED;
        return ::AccessibleObjectFromWindow(s_->window, static_cast<DWORD>(OBJID_WINDOW), IID_IDispatch,
                                            reinterpret_cast<void**>(parent));
    }
    HRESULT STDMETHODCALLTYPE get_accChildCount(long* count) noexcept override
    {
        if (!count)
            return E_POINTER;
        if (!s_)
            return RPC_E_DISCONNECTED;
        *count = static_cast<long>(std::min<row_index>(s_->rows, max_children));
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_accChild(VARIANT child, IDispatch** out) noexcept override
    {
        if (!out)
            return E_POINTER;
        *out = nullptr;
        if (!s_)
            return RPC_E_DISCONNECTED;
        return row_of(child) ? S_FALSE : E_INVALIDARG;  // rows are simple elements
    }
    HRESULT STDMETHODCALLTYPE get_accName(VARIANT child, BSTR* name) noexcept override try {
        if (!s_)
            return RPC_E_DISCONNECTED;
        if (is_self(child)) {
            const int length = ::GetWindowTextLengthW(s_->window);
            std::wstring text(static_cast<std::size_t>(length) + 1, L'\0');
            text.resize(static_cast<std::size_t>(::GetWindowTextW(s_->window, text.data(), length + 1)));
            return set_bstr(name, text);
        }
        const auto row = row_of(child);
        if (!row)
            return E_INVALIDARG;
        return set_bstr(name, s_->accessible_name(*row));
    } catch (...) {
        return hresult_from_caught_exception();
    }
    HRESULT STDMETHODCALLTYPE get_accValue(VARIANT child, BSTR* value) noexcept override try {
        if (!s_)
            return RPC_E_DISCONNECTED;
        if (is_self(child))
            return set_bstr(value, {});
        const auto row = row_of(child);
        if (!row)
            return E_INVALIDARG;
        if (!s_->is_tree())
            return set_bstr(value, {});
        const row_outline outline = s_->outline(*row);
        return set_bstr(value, std::to_wstring(outline.level ? outline.level - 1 : 0));
    } catch (...) {
        return hresult_from_caught_exception();
    }
    HRESULT STDMETHODCALLTYPE get_accDescription(VARIANT child, BSTR* out) noexcept override try {
        if (!s_)
            return RPC_E_DISCONNECTED;
        const auto row = is_self(child) ? std::nullopt : row_of(child);
        return set_bstr(out, row ? s_->accessible_description(*row) : std::wstring());
    } catch (...) {
        return hresult_from_caught_exception();
    }
    HRESULT STDMETHODCALLTYPE get_accRole(VARIANT child, VARIANT* role) noexcept override
    {
        if (!role)
            return E_POINTER;
        ::VariantInit(role);
        if (!s_)
            return RPC_E_DISCONNECTED;
        role->vt = VT_I4;
        if (is_self(child))
            role->lVal = s_->is_tree() ? ROLE_SYSTEM_OUTLINE : ROLE_SYSTEM_LIST;
        else if (row_of(child))
            role->lVal = s_->is_tree() ? ROLE_SYSTEM_OUTLINEITEM : ROLE_SYSTEM_LISTITEM;
        else {
            role->vt = VT_EMPTY;
            return E_INVALIDARG;
        }
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_accState(VARIANT child, VARIANT* state) noexcept override try {
        if (!state)
            return E_POINTER;
        ::VariantInit(state);
        if (!s_)
            return RPC_E_DISCONNECTED;
        const bool has_focus = ::GetFocus() == s_->window;
        long bits = 0;
        if (is_self(child)) {
            bits = STATE_SYSTEM_FOCUSABLE | (has_focus ? STATE_SYSTEM_FOCUSED : 0);
            if (!::IsWindowVisible(s_->window))
                bits |= STATE_SYSTEM_INVISIBLE;
            if (s_->mode == selection_mode::multiple)
                bits |= STATE_SYSTEM_MULTISELECTABLE | STATE_SYSTEM_EXTSELECTABLE;
        } else {
            const auto row = row_of(child);
            if (!row)
                return E_INVALIDARG;
            bits = STATE_SYSTEM_SELECTABLE | STATE_SYSTEM_FOCUSABLE;
            if (s_->row_selected(*row))
                bits |= STATE_SYSTEM_SELECTED;
            if (*row == s_->focus && has_focus)
                bits |= STATE_SYSTEM_FOCUSED;
            if (s_->mode == selection_mode::multiple)
                bits |= STATE_SYSTEM_MULTISELECTABLE | STATE_SYSTEM_EXTSELECTABLE;
            if (*row < s_->top || *row - s_->top >= s_->visible_count())
                bits |= STATE_SYSTEM_OFFSCREEN;
            if (s_->is_tree()) {
                const row_outline outline = s_->outline(*row);
                if (outline.expandable)
                    bits |= outline.expanded ? STATE_SYSTEM_EXPANDED : STATE_SYSTEM_COLLAPSED;
            }
        }
        state->vt = VT_I4;
        state->lVal = bits;
        return S_OK;
    } catch (...) {
        return hresult_from_caught_exception();
    }
    HRESULT STDMETHODCALLTYPE get_accHelp(VARIANT, BSTR* out) noexcept override { return set_bstr(out, {}); }
    HRESULT STDMETHODCALLTYPE get_accHelpTopic(BSTR* file, VARIANT, long* topic) noexcept override
    {
        if (file)
            *file = nullptr;
        if (topic)
            *topic = 0;
        return S_FALSE;
    }
    HRESULT STDMETHODCALLTYPE get_accKeyboardShortcut(VARIANT, BSTR* out) noexcept override
    {
        return set_bstr(out, {});
    }
    HRESULT STDMETHODCALLTYPE get_accFocus(VARIANT* focus) noexcept override
    {
        if (!focus)
            return E_POINTER;
        ::VariantInit(focus);
        if (!s_)
            return RPC_E_DISCONNECTED;
        if (::GetFocus() != s_->window)
            return S_FALSE;
        focus->vt = VT_I4;
        focus->lVal = s_->focus != no_row && s_->focus < row_index(max_children) ? long(s_->focus + 1) : CHILDID_SELF;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE get_accSelection(VARIANT* selection) noexcept override try {
        if (!selection)
            return E_POINTER;
        ::VariantInit(selection);
        if (!s_)
            return RPC_E_DISCONNECTED;
        // Only rows that are children can be named: readers list what they are given, and
        // a bounded snapshot is enough for them.
        std::vector<long> ids;
        const range_set& rows = s_->selection->selected_rows();
        for (row_run run = rows.run_from(0); run.first < max_accessible_rows && ids.size() < 10000;
             run = rows.run_from(run.end))
            for (row_index row = run.first; row < run.end && row < max_accessible_rows && ids.size() < 10000; ++row)
                ids.push_back(long(row + 1));
        if (ids.empty())
            return S_FALSE;
        if (ids.size() == 1) {
            selection->vt = VT_I4;
            selection->lVal = ids.front();
            return S_OK;
        }
        selection->vt = VT_UNKNOWN;
        selection->punkVal = make_com_object<child_enumerator>(std::move(ids)).detach();
        return S_OK;
    } catch (...) {
        return hresult_from_caught_exception();
    }
    HRESULT STDMETHODCALLTYPE get_accDefaultAction(VARIANT child, BSTR* action) noexcept override try {
        if (!s_)
            return RPC_E_DISCONNECTED;
        if (is_self(child))
            return set_bstr(action, {});
        return set_bstr(action, row_of(child) ? L"Double Click" : L"");
    } catch (...) {
        return hresult_from_caught_exception();
    }
    HRESULT STDMETHODCALLTYPE accSelect(long flags, VARIANT child) noexcept override try {
        if (!s_)
            return RPC_E_DISCONNECTED;
        const auto row = row_of(child);
        if (!row)
            return E_INVALIDARG;
        listview<uniform_height>& list = *s_->owner;
        auto* const multiple =
            s_->mode == selection_mode::multiple ? static_cast<multiple_selection*>(s_->selection.get()) : nullptr;
        constexpr long add = SELFLAG_ADDSELECTION, remove = SELFLAG_REMOVESELECTION, extend = SELFLAG_EXTENDSELECTION;
        if ((flags & ~SELFLAG_VALID) || ((flags & add) && (flags & remove)) ||
            ((flags & SELFLAG_TAKESELECTION) && (flags & (add | remove | extend))) ||
            (!multiple && (flags & (add | extend))))
            return E_INVALIDARG;
        if (flags & extend) {
            // The rows from the anchor to this one: added, removed, or else given the
            // anchor's state.
            const row_index anchor = multiple->anchor() < s_->rows ? multiple->anchor() : *row;
            const bool select = (flags & add) || (!(flags & remove) && s_->row_selected(anchor));
            list.select_range(std::min(anchor, *row), std::max(anchor, *row) + 1, select);
        } else if (flags & (add | remove)) {
            list.select_range(*row, *row + 1, (flags & add) != 0);
        }
        if (flags & SELFLAG_TAKESELECTION)
            list.select_row(*row);
        if (flags & SELFLAG_TAKEFOCUS) {
            ::SetFocus(s_->window);
            s_->set_focus(*row, false);
            s_->ensure_visible(*row);
            if (multiple && !(flags & extend))
                multiple->set_anchor(*row);  // as a click does; Shift keeps the anchor
        }
        return S_OK;
    } catch (...) {
        return hresult_from_caught_exception();
    }
    HRESULT STDMETHODCALLTYPE accLocation(long* left, long* top, long* width, long* height,
                                          VARIANT child) noexcept override
    {
        if (!left || !top || !width || !height)
            return E_POINTER;
        if (!s_)
            return RPC_E_DISCONNECTED;
        RECT r{};
        if (is_self(child)) {
            ::GetClientRect(s_->window, &r);
        } else {
            const auto row = row_of(child);
            if (!row)
                return E_INVALIDARG;
            r = s_->row_rect(*row);
        }
        ::MapWindowPoints(s_->window, nullptr, reinterpret_cast<POINT*>(&r), 2);
        *left = r.left;
        *top = r.top;
        *width = r.right - r.left;
        *height = r.bottom - r.top;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE accNavigate(long direction, VARIANT start, VARIANT* end) noexcept override
    {
        if (!end)
            return E_POINTER;
        ::VariantInit(end);
        if (!s_)
            return RPC_E_DISCONNECTED;
        const row_index count = std::min<row_index>(s_->rows, max_children);
        row_index target = no_row;
        if (is_self(start)) {
            if (direction == NAVDIR_FIRSTCHILD && count)
                target = 0;
            else if (direction == NAVDIR_LASTCHILD && count)
                target = count - 1;
            else
                return S_FALSE;
        } else {
            const auto row = row_of(start);
            if (!row)
                return E_INVALIDARG;
            if ((direction == NAVDIR_NEXT || direction == NAVDIR_DOWN) && *row + 1 < count)
                target = *row + 1;
            else if ((direction == NAVDIR_PREVIOUS || direction == NAVDIR_UP) && *row > 0)
                target = *row - 1;
            else
                return S_FALSE;
        }
        end->vt = VT_I4;
        end->lVal = long(target + 1);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE accHitTest(long x, long y, VARIANT* child) noexcept override
    {
        if (!child)
            return E_POINTER;
        ::VariantInit(child);
        if (!s_)
            return RPC_E_DISCONNECTED;
        POINT p{x, y};
        ::ScreenToClient(s_->window, &p);
        RECT client{};
        ::GetClientRect(s_->window, &client);
        if (!::PtInRect(&client, p))
            return S_FALSE;
        child->vt = VT_I4;
        const row_index row = s_->owner->row_at(p);
        child->lVal = row != no_row && row < row_index(max_children) ? long(row + 1) : CHILDID_SELF;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE accDoDefaultAction(VARIANT child) noexcept override try {
        if (!s_)
            return RPC_E_DISCONNECTED;
        const auto row = row_of(child);
        if (!row)
            return is_self(child) ? DISP_E_MEMBERNOTFOUND : E_INVALIDARG;
        s_->activate(*row, false);
        return S_OK;
    } catch (...) {
        return hresult_from_caught_exception();
    }
    HRESULT STDMETHODCALLTYPE put_accName(VARIANT, BSTR) noexcept override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE put_accValue(VARIANT, BSTR) noexcept override { return E_NOTIMPL; }

private:
    static bool is_self(const VARIANT& child) noexcept { return child.vt == VT_I4 && child.lVal == CHILDID_SELF; }
    [[nodiscard]] std::optional<row_index> row_of(const VARIANT& child) const noexcept
    {
        if (child.vt != VT_I4 || child.lVal <= 0 || row_index(child.lVal) > s_->rows)
            return std::nullopt;
        return row_index(child.lVal - 1);
    }

    list_state* s_;
};

}  // namespace

com_ptr<IAccessible> make_list_accessible(listview<uniform_height>::state* owner)
{
    return make_com_object<list_accessible>(owner);
}

void detach_accessible(IAccessible* object) noexcept
{
    if (object)
        static_cast<list_accessible*>(object)->detach();
}

}  // namespace tessel::windows::new_controls::listview::impl
