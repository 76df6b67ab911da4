// Selects table and collection rows through their delegates, as a tap would, fenced as every
// call into UIKit is (see object_handles.hpp): an exception from a delegate selects nothing.

#include "platform/ios/objc/src/list_actions.hpp"

#import <UIKit/UIKit.h>

#include <optional>
#include <utility>

#include "platform/ios/objc/src/object_handles.hpp"
#include "platform/ios/objc/src/strings.hpp"

#if !__has_feature(objc_arc)
#error "platform/ios is built with -fobjc-arc"
#endif

namespace virela::ios {
namespace {

NSIndexPath* toNSIndexPath(IndexPath path) {
    return [NSIndexPath indexPathForItem:path.item inSection:path.section];
}

std::optional<IndexPath> fromNSIndexPath(NSIndexPath* _Nullable path) {
    if (!path || path.length < 2) return std::nullopt;
    return IndexPath{static_cast<long>(path.section), static_cast<long>(path.item)};
}

class UIKitListActions final : public ListActions {
  public:
    explicit UIKitListActions(std::shared_ptr<ObjectHandles> handles)
        : handles_(std::move(handles)) {}

    std::optional<std::pair<ListFacts, IndexPath>> listOfCell(HostHandle handle) override {
        using Answer = std::optional<std::pair<ListFacts, IndexPath>>;
        return guarded<Answer>(std::nullopt, [&]() -> Answer {
            UIView* cell = handles_->view(handle);
            const bool tableCell = [cell isKindOfClass:[UITableViewCell class]];
            if (!tableCell && ![cell isKindOfClass:[UICollectionViewCell class]]) {
                return std::nullopt;
            }
            UIView* list = cell.superview;
            while (list && ![list isKindOfClass:[UITableView class]] &&
                   ![list isKindOfClass:[UICollectionView class]]) {
                list = list.superview;
            }
            if (!list) return std::nullopt;
            ListFacts facts;
            facts.list = handles_->give(list);
            facts.typeName = toStdString(NSStringFromClass([list class]));
            std::optional<IndexPath> path;
            id delegate = nil;
            if (UITableView* table = as<UITableView>(list); table && tableCell) {
                path =
                    fromNSIndexPath([table indexPathForCell:static_cast<UITableViewCell*>(cell)]);
                delegate = table.delegate;
                facts.isTable = true;
                facts.answersWillSelect =
                    [delegate respondsToSelector:@selector(tableView:willSelectRowAtIndexPath:)];
                facts.answersDidSelect =
                    [delegate respondsToSelector:@selector(tableView:didSelectRowAtIndexPath:)];
            } else if (UICollectionView* collection = as<UICollectionView>(list);
                       collection && !tableCell) {
                path = fromNSIndexPath(
                    [collection indexPathForCell:static_cast<UICollectionViewCell*>(cell)]);
                delegate = collection.delegate;
                facts.isTable = false;
                facts.answersShouldSelect = [delegate
                    respondsToSelector:@selector(collectionView:shouldSelectItemAtIndexPath:)];
                facts.answersDidSelect = [delegate
                    respondsToSelector:@selector(collectionView:didSelectItemAtIndexPath:)];
                facts.answersPerformPrimaryAction =
                    [delegate respondsToSelector:@selector(collectionView:
                                                     performPrimaryActionForItemAtIndexPath:)];
            }
            if (!path) return std::nullopt;
            if (delegate) facts.delegateTypeName = toStdString(NSStringFromClass([delegate class]));
            return std::make_pair(std::move(facts), *path);
        });
    }

    std::optional<IndexPath> willSelectRow(HostHandle handle, IndexPath path) override {
        // An exception from the delegate vetoes the row: nothing is selected on its behalf.
        return guarded<std::optional<IndexPath>>(std::nullopt, [&]() -> std::optional<IndexPath> {
            UITableView* table = as<UITableView>(handles_->view(handle));
            if (!table) return std::nullopt;
            id<UITableViewDelegate> delegate = table.delegate;
            if (![delegate respondsToSelector:@selector(tableView:willSelectRowAtIndexPath:)]) {
                return path;
            }
            return fromNSIndexPath([delegate tableView:table
                              willSelectRowAtIndexPath:toNSIndexPath(path)]);
        });
    }

    bool selectRow(HostHandle list, IndexPath path) override {
        return guarded(false, [&] {
            UIView* v = handles_->view(list);
            if (UITableView* table = as<UITableView>(v)) {
                [table selectRowAtIndexPath:toNSIndexPath(path)
                                   animated:NO
                             scrollPosition:UITableViewScrollPositionNone];
                return true;
            }
            if (UICollectionView* collection = as<UICollectionView>(v)) {
                [collection selectItemAtIndexPath:toNSIndexPath(path)
                                         animated:NO
                                   scrollPosition:UICollectionViewScrollPositionNone];
                return true;
            }
            return false;
        });
    }

    bool didSelectRow(HostHandle list, IndexPath path) override {
        return guarded(false, [&] {
            UIView* v = handles_->view(list);
            if (UITableView* table = as<UITableView>(v)) {
                id<UITableViewDelegate> delegate = table.delegate;
                if (![delegate respondsToSelector:@selector(tableView:didSelectRowAtIndexPath:)]) {
                    return false;
                }
                [delegate tableView:table didSelectRowAtIndexPath:toNSIndexPath(path)];
                return true;
            }
            if (UICollectionView* collection = as<UICollectionView>(v)) {
                id<UICollectionViewDelegate> delegate = collection.delegate;
                if (![delegate respondsToSelector:@selector(collectionView:
                                                      didSelectItemAtIndexPath:)]) {
                    return false;
                }
                [delegate collectionView:collection didSelectItemAtIndexPath:toNSIndexPath(path)];
                return true;
            }
            return false;
        });
    }

    bool shouldSelectItem(HostHandle handle, IndexPath path) override {
        // Gone, or an exception from the delegate: a veto, so nothing is selected.
        return guarded(false, [&] {
            UICollectionView* collection = as<UICollectionView>(handles_->view(handle));
            if (!collection) return false;
            id<UICollectionViewDelegate> delegate = collection.delegate;
            if (![delegate respondsToSelector:@selector(collectionView:
                                                  shouldSelectItemAtIndexPath:)]) {
                return true;
            }
            return static_cast<bool>([delegate collectionView:collection
                                  shouldSelectItemAtIndexPath:toNSIndexPath(path)]);
        });
    }

    bool performPrimaryActionForItem(HostHandle handle, IndexPath path) override {
        return guarded(false, [&] {
            UICollectionView* collection = as<UICollectionView>(handles_->view(handle));
            if (!collection) return false;
            if (@available(iOS 16.0, *)) {
                id<UICollectionViewDelegate> delegate = collection.delegate;
                if (![delegate respondsToSelector:@selector(collectionView:
                                                      performPrimaryActionForItemAtIndexPath:)]) {
                    return false;
                }
                [delegate collectionView:collection
                    performPrimaryActionForItemAtIndexPath:toNSIndexPath(path)];
                return true;
            }
            return false;
        });
    }

    std::shared_ptr<ObjectHandles> handles_;
};

}  // namespace

std::shared_ptr<ListActions> makeUIKitListActions(std::shared_ptr<ObjectHandles> handles) {
    return std::make_shared<UIKitListActions>(std::move(handles));
}

}  // namespace virela::ios
