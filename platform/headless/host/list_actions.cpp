#include "platform/headless/host/list_actions.hpp"

#include "platform/headless/host/screen.hpp"

namespace virela::headless {
namespace {

View* enclosingList(View* cell) {
    for (View* v = cell ? cell->superview() : nullptr; v; v = v->superview()) {
        if (v->kind() == ViewKind::tableView || v->kind() == ViewKind::collectionView) return v;
    }
    return nullptr;
}

}  // namespace

std::optional<std::pair<ListFacts, IndexPath>> HeadlessListActions::listOfCell(HostHandle handle) {
    View* cell = resolve<View>(handle);
    View* list = enclosingList(cell);
    if (!list || !cell->indexPath) return std::nullopt;
    ListFacts facts;
    facts.list = list->handle();
    facts.isTable = list->kind() == ViewKind::tableView;
    facts.typeName = list->typeName();
    if (const auto& d = list->delegate) {
        facts.delegateTypeName = d->typeName;
        facts.answersWillSelect = static_cast<bool>(d->willSelect);
        facts.answersDidSelect = static_cast<bool>(d->didSelect);
        facts.answersShouldSelect = static_cast<bool>(d->shouldSelect);
        facts.answersPerformPrimaryAction = static_cast<bool>(d->performPrimaryAction);
    }
    return std::make_pair(facts, *cell->indexPath);
}

std::optional<IndexPath> HeadlessListActions::willSelectRow(HostHandle table, IndexPath path) {
    View* v = resolve<View>(table);
    if (!v || !v->delegate || !v->delegate->willSelect) return path;
    return v->delegate->willSelect(path);
}

bool HeadlessListActions::selectRow(HostHandle list, IndexPath path) {
    View* v = resolve<View>(list);
    if (!v) return false;
    v->selectedRow = path;
    return true;
}

bool HeadlessListActions::didSelectRow(HostHandle list, IndexPath path) {
    View* v = resolve<View>(list);
    if (!v || !v->delegate || !v->delegate->didSelect) return false;
    v->delegate->didSelect(path);
    return true;
}

bool HeadlessListActions::shouldSelectItem(HostHandle collection, IndexPath path) {
    View* v = resolve<View>(collection);
    if (!v || !v->delegate || !v->delegate->shouldSelect) return true;
    return v->delegate->shouldSelect(path);
}

bool HeadlessListActions::performPrimaryActionForItem(HostHandle collection, IndexPath path) {
    View* v = resolve<View>(collection);
    if (!v || !v->delegate || !v->delegate->performPrimaryAction) return false;
    v->delegate->performPrimaryAction(path);
    return true;
}

}  // namespace virela::headless
