#include "controls/treeview.h"

#include "base/failure.h"
#include "controls/embedded_font.h"
#include "controls/factories.h"
#include "controls/markup.h"
#include "controls/rich_layout.h"
#include "controls/selection.h"
#include "format/ts_printf.h"

#include <algorithm>
#include <cmath>

namespace tessel::windows::new_controls::treeview::impl {

using listview::impl::cell;
using listview::impl::key_event;
using listview::impl::row_click;
using listview::impl::row_outline;
using listview::impl::row_paint;

namespace {

const ts_printf::compiled_format& gap_format()
{
    static const ts_printf::compiled_format format(L"[[[g:{}: ]]]");
    return format;
}
const ts_printf::compiled_format& vector_format()
{
    static const ts_printf::compiled_format format(L"[[[v:{2}:{0?<}:{1}:{0?>} ]]] {3}");
    return format;
}
const ts_printf::compiled_format& raster_format()
{
    static const ts_printf::compiled_format format(L"[[[r:{2}:{0?<}:{1}:{0?>} ]]] {3}");
    return format;
}
const ts_printf::compiled_format& expander_format()
{
    static const ts_printf::compiled_format format(L"[[[F:{2}:[[[f#[Fluent]#{0?<}3{0?|}4{0?>}]]]]]] {1}");
    return format;
}

// The program's icon font, registered once with the shared DirectWrite factory. Null
// when the executable carries no font resource (the expanders are then drawn as plain
// triangles).
IDWriteFontCollection* icon_font() noexcept
{
    static IDWriteFontCollection* const collection = []() -> IDWriteFontCollection* {
        try {
            static const ui::embedded_font_loaders loaders(d2d::dwrite_factory());
            static const com_ptr<IDWriteFontCollection> font = loaders.program_font();
            return font.get();
        } catch (...) {
            log_caught_exception(L"tree view: the icon font is missing; expanders are drawn plainly");
            return nullptr;
        }
    }();
    return collection;
}

// Visible descendants of a node whose row is `row`: the rows after it that are deeper.
row_index subtree_rows(const std::vector<visible_row>& rows, row_index row)
{
    const std::uint32_t depth = rows[row].depth;
    row_index end = row + 1;
    while (end < rows.size() && rows[end].depth > depth)
        ++end;
    return end - row - 1;
}

}  // namespace

// The two expander marks laid out for the list's current text format.
struct treeview::expander_cache {
    com_ptr<IDWriteTextFormat> format;  // held, so that a new format never has its address
    com_ptr<IDWriteTextLayout> marks[2];  // collapsed, expanded
};

treeview::treeview(HWND parent, int control_id, const RECT& rect, selection_mode mode)
    : list_(parent, control_id, rect, treeview_class), expanders_(std::make_unique<expander_cache>())
{
    list_.set_selection_mode(mode);
    listview::impl::handler_lists& h = list_.handlers();
    h.cell_text.push_back([this](row_index row, std::size_t first_column, std::span<cell> cells,
                                 std::optional<D2D1_COLOR_F>& row_colour) {
        return fill_cells(row, first_column, cells, row_colour);
    });
    h.key_down.push_back([this](const key_event& key) { return on_key(key); });
    h.row_click.push_back([this](const row_click& click) { return on_click(click); });
    h.row_paint.push_back([this](const row_paint& paint) { paint_expander(paint); });
    h.item_of_row = [this](row_index row) -> void* { return node_of_row(row); };
    h.outline_of_row = [this](row_index row) {
        const tree_node* node = node_of_row(row);
        if (!node)
            return row_outline{};
        return row_outline{rows_[row].depth + 1, !node->children_.empty(), node->expanded_};
    };
}

treeview::~treeview()
{
    // The window goes first: while it is destroyed it may still ask for rows, which must
    // then still exist.
    if (const HWND window = list_.window())
        ::DestroyWindow(window);
}

// ---------------------------------------------------------------------------------------
// Cells

std::wstring treeview::first_cell_text(const tree_node& node, std::uint32_t depth) const
{
    std::wstring text;
    append_first_cell_text(text, node, depth);
    return text;
}

void treeview::append_first_cell_text(std::wstring& text, const tree_node& node, std::uint32_t depth) const
{
    const int gap = static_cast<int>(std::lround(float(depth) * indent_ + base_offset_));
    ts_printf::format_to(text, gap_format(), gap);
    const node_data& d = node.data_;
    std::visit(
        [&](const auto& image) {
            using kind = std::decay_t<decltype(image)>;
            if constexpr (std::is_same_v<kind, std::monostate>)
                throw std::bad_variant_access();
            else if constexpr (std::is_same_v<kind, no_image>)
                text += d.text;
            else if constexpr (std::is_same_v<kind, vector_image>)
                ts_printf::format_to(text, vector_format(), d.overlay != 0, d.overlay, image.id, d.text);
            else if constexpr (std::is_same_v<kind, raster_image>)
                ts_printf::format_to(text, raster_format(), d.overlay != 0, d.overlay,
                                     reinterpret_cast<std::uintptr_t>(image.icon), d.text);
        },
        d.image);
}

bool treeview::fill_cells(row_index row, std::size_t first_column, std::span<cell> cells,
                          std::optional<D2D1_COLOR_F>& row_colour)
{
    if (row >= rows_.size()) {
        // Asked while the list's row count and the table disagree: an empty row.
        for (cell& c : cells)
            c = cell{};
        return true;
    }
    const visible_row& entry = rows_[row];
    const node_data& d = entry.node->data_;
    if (d.row_colour)
        row_colour = d.row_colour;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        cell& c = cells[i];
        c.style = d.style;
        if (d.text_colour)
            c.text_colour = d.text_colour;
        if (d.flags & 1)
            c.flags |= 1;
        const std::size_t column = first_column + i;
        if (column == 0) {
            c.text.clear();  // keeps its buffer: filling a screenful allocates nothing
            append_first_cell_text(c.text, *entry.node, entry.depth);
        }
        else if (column - 1 < d.column_texts.size())
            c.text = d.column_texts[column - 1];
        else
            c.text.clear();
    }
    return true;
}

// ---------------------------------------------------------------------------------------
// The visible-row table

void treeview::renumber_from(row_index row) const noexcept
{
    for (row_index r = row; r < rows_.size(); ++r)
        rows_[r].node->row_hint_ = r;
    numbered_ = rows_.size();
}

tree_node* treeview::node_of_row(row_index row) const noexcept
{
    return row < rows_.size() ? rows_[row].node : nullptr;
}

row_index treeview::row_of_node(const tree_node* node) const noexcept
{
    if (!node)
        return no_row;
    for (const tree_node* up = node->parent_; up; up = up->parent_)
        if (!up->expanded_)
            return no_row;
    const row_index hint = node->row_hint_;
    if (hint < numbered_ && hint < rows_.size() && rows_[hint].node == node)
        return hint;
    // Number the rows after the last change once; later lookups are direct.
    renumber_from(numbered_ < rows_.size() ? numbered_ : rows_.size());
    const row_index again = node->row_hint_;
    if (again < rows_.size() && rows_[again].node == node)
        return again;
    renumber_from(0);
    return node->row_hint_ < rows_.size() && rows_[node->row_hint_].node == node ? node->row_hint_ : no_row;
}

row_index treeview::append_visible(const tree_node* node, std::vector<visible_row>& into) const
{
    // Iterative, so that a deep tree cannot exhaust the stack.
    const row_index before = into.size();
    struct frame {
        const tree_node* node;
        std::size_t next;
    };
    std::vector<frame> stack{{node, 0}};
    while (!stack.empty()) {
        frame& top = stack.back();
        if (top.next >= top.node->children_.size() || !top.node->expanded_) {
            stack.pop_back();
            continue;
        }
        const tree_node* child = top.node->children_[top.next++].get();
        into.push_back({const_cast<tree_node*>(child), child->depth_});
        if (child->expanded_ && !child->children_.empty())
            stack.push_back({child, 0});
    }
    return into.size() - before;
}

void treeview::show_children(tree_node* node, row_index row)
{
    std::vector<visible_row> added;
    append_visible(node, added);
    if (added.empty())
        return;
    rows_.insert(rows_.begin() + static_cast<std::ptrdiff_t>(row + 1), added.begin(), added.end());
    numbered_ = std::min(numbered_, row + 1);
    list_.insert_rows(row + 1, added.size());
}

void treeview::hide_children(tree_node* node, row_index row)
{
    (void)node;
    const row_index count = subtree_rows(rows_, row);
    if (count == 0)
        return;
    // The focus (and a single selection) inside the subtree moves up to the node, as
    // the rows it was on disappear.
    const row_index focus = list_.focus_row();
    const bool focus_inside = focus != no_row && focus > row && focus <= row + count;
    const row_index selected = list_.first_selected();
    const bool selection_inside = list_.selection_kind() == selection_mode::single && selected != no_row &&
                                  selected > row && selected <= row + count;
    if (focus_inside || selection_inside)
        list_.set_focus_row(row, selection_inside || list_.is_selected(focus));
    rows_.erase(rows_.begin() + static_cast<std::ptrdiff_t>(row + 1),
                rows_.begin() + static_cast<std::ptrdiff_t>(row + 1 + count));
    numbered_ = std::min(numbered_, row + 1);
    list_.remove_rows(row + 1, count);
}

void treeview::set_expanded(tree_node* node, bool expanded)
{
    if (!node || node->expanded_ == expanded)
        return;
    const row_index row = row_of_node(node);
    if (row == no_row) {
        node->expanded_ = expanded;  // hidden: shows so when its ancestors open
        return;
    }
    if (expanded) {
        node->expanded_ = true;
        show_children(node, row);
    } else {
        hide_children(node, row);
        node->expanded_ = false;
    }
    list_.invalidate_rows(row);
    if (list_.window() && row < listview::impl::max_accessible_rows)
        ::NotifyWinEvent(EVENT_OBJECT_STATECHANGE, list_.window(), OBJID_CLIENT, LONG(row + 1));
}

void treeview::expand(tree_node* node) { set_expanded(node, true); }
void treeview::collapse(tree_node* node) { set_expanded(node, false); }
void treeview::toggle(tree_node* node)
{
    if (node)
        set_expanded(node, !node->expanded_);
}

void treeview::expand_all()
{
    // Everything changes at once: the table is rebuilt, the selection and focus are
    // carried over by node.
    std::vector<tree_node*> selected = selected_nodes();
    tree_node* focus = focused_node();
    std::vector<tree_node*> stack;
    for (auto& root : roots_)
        stack.push_back(root.get());
    while (!stack.empty()) {
        tree_node* n = stack.back();
        stack.pop_back();
        n->expanded_ = true;
        for (auto& child : n->children_)
            stack.push_back(child.get());
    }
    std::vector<visible_row> table;
    table.reserve(rows_.size());
    for (auto& root : roots_) {
        table.push_back({root.get(), 0});
        append_visible(root.get(), table);
    }
    list_.begin_update();
    rows_.swap(table);
    numbered_ = 0;
    list_.clear_selection();
    list_.set_row_count(0);
    list_.set_row_count(rows_.size());
    list_.invalidate_all();
    for (tree_node* n : selected)
        if (const row_index row = row_of_node(n); row != no_row)
            list_.select_range(row, row + 1, true);
    if (focus)
        list_.set_focus_row(row_of_node(focus), false);
    list_.end_update();
}

void treeview::collapse_all()
{
    tree_node* focus = focused_node();
    std::vector<tree_node*> selected = selected_nodes();
    std::vector<tree_node*> stack;
    for (auto& root : roots_)
        stack.push_back(root.get());
    while (!stack.empty()) {
        tree_node* n = stack.back();
        stack.pop_back();
        if (!n->children_.empty())
            n->expanded_ = false;
        for (auto& child : n->children_)
            stack.push_back(child.get());
    }
    const auto top_of = [](tree_node* n) {
        while (n && n->parent_)
            n = n->parent_;
        return n;
    };
    std::vector<visible_row> table;
    table.reserve(roots_.size());
    for (auto& root : roots_)
        table.push_back({root.get(), 0});
    list_.begin_update();
    rows_.swap(table);
    numbered_ = 0;
    list_.clear_selection();
    list_.set_row_count(0);
    list_.set_row_count(rows_.size());
    list_.invalidate_all();
    for (tree_node* n : selected)
        if (n->parent_ == nullptr || list_.selection_kind() == selection_mode::single)
            if (const row_index row = row_of_node(top_of(n)); row != no_row)
                list_.select_range(row, row + 1, true);
    if (focus)
        list_.set_focus_row(row_of_node(top_of(focus)), false);
    list_.end_update();
}

// ---------------------------------------------------------------------------------------
// Building the tree

tree_node* treeview::insert(tree_node* parent, tree_node* before, node_data data, std::any owner_data)
{
    auto& siblings = parent ? parent->children_ : roots_;
    auto at = siblings.end();
    if (before) {
        at = std::find_if(siblings.begin(), siblings.end(), [&](const auto& n) { return n.get() == before; });
        fail_fast_if(at == siblings.end(), L"treeview::insert: `before` is not a child of `parent`");
    }
    auto made = std::make_unique<tree_node>();
    made->data_ = std::move(data);
    made->owner_data = std::move(owner_data);
    made->parent_ = parent;
    made->depth_ = parent ? parent->depth_ + 1 : 0;
    tree_node* const node = made.get();
    const bool first_child = parent && parent->children_.empty();
    siblings.insert(at, std::move(made));

    // Where its row goes, when it has one.
    row_index row = no_row;
    if (before) {
        row = row_of_node(before);
    } else if (!parent) {
        row = rows_.size();
    } else if (row_of_node(parent) != no_row && parent->expanded_) {
        // After the parent's subtree: where the next node in pre-order stands, or at the
        // end. Trees are built from the top down, so this is usually the end.
        row = rows_.size();
        for (const tree_node* n = parent; n; n = n->parent_) {
            const auto& level = n->parent_ ? n->parent_->children_ : roots_;
            const auto at = std::find_if(level.begin(), level.end(), [&](const auto& c) { return c.get() == n; });
            if (at != level.end() && std::next(at) != level.end()) {
                row = row_of_node(std::next(at)->get());
                break;
            }
        }
    }
    if (row != no_row) {
        rows_.insert(rows_.begin() + static_cast<std::ptrdiff_t>(row), {node, node->depth_});
        if (row + 1 == rows_.size() && numbered_ == row) {
            node->row_hint_ = row;
            numbered_ = rows_.size();
        } else {
            numbered_ = std::min(numbered_, row);
        }
        list_.insert_rows(row, 1);
    }
    if (first_child)
        row_changed(parent);  // it gains its expander
    return node;
}

void treeview::remove(tree_node* node)
{
    if (!node)
        return;
    const row_index row = row_of_node(node);
    if (row != no_row) {
        const row_index count = 1 + subtree_rows(rows_, row);
        rows_.erase(rows_.begin() + static_cast<std::ptrdiff_t>(row),
                    rows_.begin() + static_cast<std::ptrdiff_t>(row + count));
        numbered_ = std::min(numbered_, row);
        list_.remove_rows(row, count);
    }
    tree_node* parent = node->parent_;
    auto& siblings = parent ? parent->children_ : roots_;
    const auto at = std::find_if(siblings.begin(), siblings.end(), [&](const auto& n) { return n.get() == node; });
    fail_fast_if(at == siblings.end(), L"treeview::remove: the node is not in this tree");
    siblings.erase(at);
    if (parent && parent->children_.empty())
        row_changed(parent);  // it loses its expander
}

void treeview::clear()
{
    list_.begin_update();
    rows_.clear();
    numbered_ = 0;
    list_.set_row_count(0);
    roots_.clear();
    list_.invalidate_all();
    list_.end_update();
}

void treeview::row_changed(const tree_node* node)
{
    if (const row_index row = row_of_node(node); row != no_row)
        list_.invalidate_rows(row);  // which tells readers of the new name
}

void treeview::update(tree_node* node, node_data data)
{
    node->data_ = std::move(data);
    row_changed(node);
}

void treeview::set_text(tree_node* node, std::wstring text)
{
    node->data_.text = std::move(text);
    row_changed(node);
}

void treeview::set_image(tree_node* node, node_image image, std::uint64_t overlay)
{
    node->data_.image = std::move(image);
    node->data_.overlay = overlay;
    row_changed(node);
}

void treeview::set_column_text(tree_node* node, std::size_t column, std::wstring text)
{
    fail_fast_if(column == 0, L"treeview::set_column_text: column 0 is the node's text");
    auto& texts = node->data_.column_texts;
    if (texts.size() < column)
        texts.resize(column);
    texts[column - 1] = std::move(text);
    row_changed(node);
}

void treeview::set_text_colour(tree_node* node, std::optional<D2D1_COLOR_F> colour)
{
    node->data_.text_colour = colour;
    row_changed(node);
}

void treeview::set_row_colour(tree_node* node, std::optional<D2D1_COLOR_F> colour)
{
    node->data_.row_colour = colour;
    row_changed(node);
}

void treeview::set_style(tree_node* node, std::shared_ptr<const cell_style> style)
{
    node->data_.style = std::move(style);
    row_changed(node);
}

void treeview::set_flags(tree_node* node, std::uint32_t flags)
{
    node->data_.flags = flags;
    row_changed(node);
}

void treeview::set_indentation(float per_level, float base_offset)
{
    indent_ = per_level;
    base_offset_ = base_offset;
    list_.invalidate_all();
}

// ---------------------------------------------------------------------------------------
// Queries and selection by node

tree_node* treeview::selected_node() const noexcept { return node_of_row(list_.first_selected()); }

std::vector<tree_node*> treeview::selected_nodes() const
{
    std::vector<tree_node*> nodes;
    const auto& rows = list_.selection().selected_rows();
    for (auto run = rows.run_from(0); run.first != listview::impl::none; run = rows.run_from(run.end))
        for (row_index row = run.first; row < run.end && row < rows_.size(); ++row)
            nodes.push_back(rows_[row].node);
    return nodes;
}

tree_node* treeview::focused_node() const noexcept { return node_of_row(list_.focus_row()); }

void treeview::ensure_visible(tree_node* node)
{
    std::vector<tree_node*> closed;
    for (tree_node* up = node ? node->parent_ : nullptr; up; up = up->parent_)
        if (!up->expanded_)
            closed.push_back(up);
    for (auto i = closed.rbegin(); i != closed.rend(); ++i)
        expand(*i);
    list_.ensure_visible(row_of_node(node));
}

void treeview::select(tree_node* node)
{
    if (!node) {
        list_.clear_selection();
        return;
    }
    ensure_visible(node);
    list_.set_focus_row(row_of_node(node), true);
}

void treeview::set_focus_node(tree_node* node)
{
    if (!node) {
        list_.set_focus_row(no_row, false);
        return;
    }
    ensure_visible(node);
    list_.set_focus_row(row_of_node(node), false);
}

// ---------------------------------------------------------------------------------------
// Keyboard, mouse and the expander marks

bool treeview::on_key(const key_event& key)
{
    tree_node* node = focused_node();
    if (!node || key.alt)
        return false;
    const row_index row = list_.focus_row();
    switch (key.key) {
    case VK_RIGHT:
        if (key.control || key.shift)
            return false;
        if (node->children_.empty())
            return true;
        if (!node->expanded_)
            expand(node);
        else
            list_.set_focus_row(row + 1, true);
        return true;
    case VK_LEFT:
        if (key.control || key.shift)
            return false;
        if (!node->children_.empty() && node->expanded_)
            collapse(node);
        else if (node->parent_)
            list_.set_focus_row(row_of_node(node->parent_), true);
        return true;
    case VK_ADD: expand(node); return true;
    case VK_SUBTRACT: collapse(node); return true;
    case VK_MULTIPLY: {
        // The whole subtree opens: its part of the table is replaced once.
        list_.begin_update();
        if (node->expanded_) {
            hide_children(node, row);
            node->expanded_ = false;
        }
        std::vector<tree_node*> stack;
        for (auto& child : node->children_)
            stack.push_back(child.get());
        while (!stack.empty()) {
            tree_node* n = stack.back();
            stack.pop_back();
            n->expanded_ = true;
            for (auto& child : n->children_)
                stack.push_back(child.get());
        }
        set_expanded(node, true);
        list_.end_update();
        return true;
    }
    default: return false;
    }
}

bool treeview::on_click(const row_click& click)
{
    if (click.column != 0 || click.row >= rows_.size())
        return false;
    const visible_row& entry = rows_[click.row];
    if (entry.node->children_.empty())
        return false;
    const float left = listview::impl::cell_padding + float(entry.depth) * indent_;
    const float right = left + std::max(base_offset_, list_.row_height_dips() * 0.6f);
    if (click.in_cell.x < left || click.in_cell.x >= right)
        return false;
    toggle(entry.node);
    return true;
}

void treeview::paint_expander(const row_paint& paint)
{
    if (paint.row >= rows_.size())
        return;
    const visible_row& entry = rows_[paint.row];
    if (entry.node->children_.empty())
        return;
    const bool expanded = entry.node->expanded_;
    IDWriteTextFormat* format = list_.default_text_format();
    IDWriteFontCollection* font = icon_font();
    const float left = paint.first_cell.left + listview::impl::cell_padding + float(entry.depth) * indent_;
    const float height = paint.row_rect.bottom - paint.row_rect.top;
    com_ptr<ID2D1SolidColorBrush> brush;
    D2D1_COLOR_F colour = paint.text_colour;
    colour.a *= 0.75f;
    throw_if_failed(paint.target->CreateSolidColorBrush(colour, brush.put()));
    if (!font) {
        // A plain triangle when the icon font is not there.
        const float size = std::min(base_offset_, height) * 0.35f;
        const float cx = left + std::max(base_offset_, 8.f) / 2, cy = paint.row_rect.top + height / 2;
        com_ptr<ID2D1PathGeometry> path;
        throw_if_failed(d2d::d2d_factory()->CreatePathGeometry(path.put()));
        com_ptr<ID2D1GeometrySink> sink;
        throw_if_failed(path->Open(sink.put()));
        if (expanded) {
            sink->BeginFigure({cx - size, cy - size / 2}, D2D1_FIGURE_BEGIN_FILLED);
            sink->AddLine({cx + size, cy - size / 2});
            sink->AddLine({cx, cy + size / 2});
        } else {
            sink->BeginFigure({cx - size / 2, cy - size}, D2D1_FIGURE_BEGIN_FILLED);
            sink->AddLine({cx + size / 2, cy});
            sink->AddLine({cx - size / 2, cy + size});
        }
        sink->EndFigure(D2D1_FIGURE_END_CLOSED);
        throw_if_failed(sink->Close());
        paint.target->FillGeometry(path.get(), brush.get());
        return;
    }
    if (expanders_->format.get() != format) {
        for (int i = 0; i < 2; ++i) {
            // {0}: collapsed ("3", a chevron to the right) or expanded ("4", down).
            std::wstring markup;
            ts_printf::format_to(markup, expander_format(), i == 0, L"", reinterpret_cast<std::uintptr_t>(font));
            layout_options options;
            options.factory = d2d::dwrite_factory();
            options.format = format;
            options.max_width = 1000.f;
            options.max_height = 1000.f;
            expanders_->marks[i] = build_layout(parse_markup(markup), options).layout;
        }
        expanders_->format = com_ptr<IDWriteTextFormat>(format);
    }
    IDWriteTextLayout* mark = expanders_->marks[expanded ? 1 : 0].get();
    DWRITE_TEXT_METRICS metrics{};
    throw_if_failed(mark->GetMetrics(&metrics));
    const float sy = list_.scale_y(), sx = list_.scale_x();
    const float x = std::round(left * sx) / sx;
    const float y = paint.row_rect.top + std::round((height - metrics.height) / 2 * sy) / sy;
    paint.target->DrawTextLayout({x, y}, mark, brush.get(), D2D1_DRAW_TEXT_OPTIONS_NONE);
}

}  // namespace tessel::windows::new_controls::treeview::impl
