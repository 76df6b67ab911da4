#pragma once

// The headless host's interface objects: scenes, windows, views of every kind the library reads
// or acts on, accessibility elements, menus and view controllers. Tests and the demo build
// screens from them (see builder.hpp); HeadlessHost and its host-action roles read and act on
// them for core.
//
// Like UIKit, these objects belong to the main thread.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/base/geometry.hpp"
#include "core/base/records.hpp"
#include "core/ports/host.hpp"
#include "core/ports/host_actions.hpp"

namespace virela {
struct RedactionMark;
}

namespace virela::headless {

class View;
class Window;
class Scene;
class HostNotifier;

// Hands out handles and resolves them while the object lives.
class Handled {
  public:
    Handled();
    virtual ~Handled();
    Handled(const Handled&) = delete;
    Handled& operator=(const Handled&) = delete;
    HostHandle handle() const noexcept { return handle_; }

  private:
    HostHandle handle_;
};

// Resolves a handle to a live object of type T, or nullptr (freed, or another kind of object).
template <class T>
T* resolve(HostHandle handle);
Handled* resolveHandled(HostHandle handle);

// An accessibility element that is not a view (a virtual element).
class AccessibilityElement : public Handled {
  public:
    Rect frame;  // in the containing view's coordinates
    bool isAccessibilityElement = true;
    std::string identifier;
    std::optional<std::string> label;
    std::uint64_t traits = 0;
    std::function<bool()> onActivate;  // accessibilityActivate(); declines without one
    std::weak_ptr<View> container;
};

class MenuNode : public Handled {
  public:
    bool isMenu = false;
    std::string title;
    std::string identifier;                           // actions
    std::function<void()> handler;                    // actions
    std::vector<std::shared_ptr<MenuNode>> children;  // menus

    static std::shared_ptr<MenuNode> action(std::string title, std::string identifier,
                                            std::function<void()> handler = {});
    static std::shared_ptr<MenuNode> menu(std::string title,
                                          std::vector<std::shared_ptr<MenuNode>> children);
};

struct ListDelegate {
    std::string typeName;
    std::function<std::optional<IndexPath>(IndexPath)> willSelect;  // tables
    std::function<void(IndexPath)> didSelect;
    std::function<bool(IndexPath)> shouldSelect;          // collections
    std::function<void(IndexPath)> performPrimaryAction;  // collections
};

// A pan gesture recogniser added to a view. It sees every drag that starts on the view or inside
// it, alongside the app's own gestures (it never takes a drag away from a scroll view).
struct PanRecognizer {
    enum class State { began, changed, ended };
    std::function<void(State state, Point translation)> action;
};

class ViewController : public Handled {
  public:
    explicit ViewController(std::string name = "UIViewController",
                            ControllerKind controllerKind = ControllerKind::plain)
        : typeName(std::move(name)), kind(controllerKind) {}
    std::string typeName;
    ControllerKind kind;
    std::shared_ptr<View> view;
    std::shared_ptr<ViewController> presented;
    std::vector<std::shared_ptr<ViewController>> children;  // navigation stack or tabs
    std::size_t selectedIndex = 0;                          // tab bars

    // The customer's navigation. Each updates the controller tree and, when the controller's
    // view is on screen, puts the new screen's view where the old one was.
    void push(std::shared_ptr<ViewController> controller);  // navigation controllers
    std::shared_ptr<ViewController> pop();                  // the popped one; never the root
    void present(std::shared_ptr<ViewController> modal);    // over the window, full size
    std::shared_ptr<ViewController> dismiss();              // the presented one
    void selectTab(std::size_t index);                      // tab bar controllers
};

class View : public Handled, public std::enable_shared_from_this<View> {
  public:
    explicit View(ViewKind kind = ViewKind::view, std::string typeName = {});
    ~View() override;

    ViewKind kind() const noexcept { return kind_; }
    const std::string& typeName() const noexcept { return typeName_; }

    // Geometry, in the superview's bounds coordinates.
    Rect frame;
    Point boundsOrigin;                     // scroll views: the content offset
    std::optional<Rect> presentationFrame;  // where it is drawn while an animation moves it
    bool animating = false;                 // its layer has running animations
    bool hidden = false;
    double alpha = 1;
    bool clipsToBounds = false;
    bool userInteractionEnabled = true;

    // Appearance.
    std::optional<Color> background;
    std::optional<Color> borderColor;
    double borderWidth = 0;
    // A mask layer, or a transform other than a translation: the rasteriser cannot draw either
    // shape, so it leaves such a view out with its subviews. `frame` already is where the view
    // lies, its transform included.
    bool masked = false;
    AffineTransform transform;
    double cornerRadius = 0;  // the layer's: background and border are drawn rounded
    // A shape layer's path as line segments in the view's bounds coordinates, stroked with round
    // caps over the view's own content.
    struct Stroke {
        Point from;
        Point to;
    };
    std::vector<Stroke> strokes;
    double strokeWidth = 0;
    std::optional<Color> strokeColor;
    std::string text;  // labels, buttons, text fields and views; secure fields draw dots
    Color textColor{0.09, 0.13, 0.10, 1};

    // Accessibility.
    bool isAccessibilityElement = false;
    std::string accessibilityIdentifier;
    std::optional<std::string> accessibilityLabel;
    std::uint64_t accessibilityTraits = 0;
    bool accessibilityElementsPresent = false;
    std::vector<std::shared_ptr<AccessibilityElement>> accessibilityElements;
    std::function<bool()> onActivate;  // accessibilityActivate()

    // Controls and text input.
    bool enabled = true;
    bool secureTextEntry = false;  // any text input: fields, text views, key-input views
    bool editable = true;          // text views
    bool isOn = false;
    double value = 0;
    double minimumValue = 0;
    double maximumValue = 1;
    double stepValue = 1;
    bool wraps = false;
    long numberOfSegments = 0;
    long selectedSegment = -1;
    std::shared_ptr<MenuNode> menu;
    bool showsMenuAsPrimaryAction = false;
    std::function<void(std::uint64_t events)> onActions;  // sendActions(for:)
    bool firstResponder = false;
    bool keyInput = false;  // set for text fields and views

    // Scroll views.
    bool scrollEnabled = true;
    Size contentSize;
    EdgeInsets contentInset;
    std::function<void(Point offset)> onContentOffsetChange;  // after a drag or scroll moved it

    std::vector<std::shared_ptr<PanRecognizer>> panRecognizers;

    // Lists and cells.
    std::shared_ptr<ListDelegate> delegate;  // table and collection views
    std::optional<IndexPath> indexPath;      // cells, as their list knows them
    std::optional<IndexPath> selectedRow;    // lists: the last selected row or item

    // Context-menu interactions attached to the view; dismissals are counted.
    bool hasContextMenuInteraction = false;
    int contextMenuDismissals = 0;

    // Called whenever the host reads this view. Tests use it to free views or throw halfway
    // through a read, as a misbehaving platform would.
    std::function<void()> onRead;

    // The tree.
    View& addSubview(std::shared_ptr<View> child);
    void removeFromSuperview();
    const std::vector<std::shared_ptr<View>>& subviews() const noexcept { return subviews_; }
    View* superview() const noexcept { return superview_; }
    Window* window() const noexcept;

    Rect bounds() const noexcept {
        return {boundsOrigin.x, boundsOrigin.y, frame.width, frame.height};
    }
    // The deepest visible, interactive view under `p` (in this view's bounds coordinates), as
    // UIKit's hit-test finds it; null when the touch misses this view.
    View* hitTest(Point p);

    // The view's bounds converted to its window (the model geometry); null without a window.
    Rect frameInWindow() const noexcept { return inWindow(false); }
    // The same for where it is drawn (presentation geometry of it and its ancestors).
    Rect presentationInWindow() const noexcept { return inWindow(true); }

    // A text input that hides what is typed: redacted by default, never focused or typed into
    // remotely.
    bool isSecureTextInput() const noexcept {
        return secureTextEntry &&
               (keyInput || kind_ == ViewKind::textField || kind_ == ViewKind::textView);
    }

    // Redaction marks, as the host sets them.
    bool isVirelaRedacted() const noexcept { return mark_ != nullptr; }
    void setVirelaRedacted(bool redacted);
    void virelaRedact(std::optional<Color> color = std::nullopt,
                      std::optional<std::string> label = std::nullopt,
                      std::optional<Color> labelColor = std::nullopt);
    const RedactionMark* redactionMark() const noexcept { return mark_.get(); }

  private:
    friend class Window;
    Rect inWindow(bool presented) const noexcept;

    ViewKind kind_;
    std::string typeName_;
    std::vector<std::shared_ptr<View>> subviews_;
    View* superview_ = nullptr;
    Window* ownWindow_ = nullptr;  // set on windows only
    std::shared_ptr<const RedactionMark> mark_;
};

class Window : public View {
  public:
    explicit Window(std::string typeName = "UIWindow");
    ~Window() override;

    double level = 0;
    bool key = false;
    bool passthrough = false;  // the library's overlay windows
    Point screenOrigin;        // where the window sits on the screen
    std::shared_ptr<ViewController> rootViewController;
    // The passthrough window's interactive views.
    std::vector<std::function<std::shared_ptr<View>()>> targets;

    Scene* scene() const noexcept { return scene_; }

    // Visibility changes that the platform announces (the registry listens); plain writes to
    // `hidden` do not.
    void show();
    void hide();
    void makeKeyAndVisible();

    // Plays the customer's finger moving from `from` to `to` (window coordinates) in `steps`
    // moves: the pan recognisers of the view under `from` and of its ancestors see began, one
    // changed per move and ended, and the innermost scroll view there follows the finger,
    // within its content.
    void drag(Point from, Point to, int steps = 8);

  private:
    friend class Scene;
    friend class HeadlessHost;
    Scene* scene_ = nullptr;
    std::weak_ptr<HostNotifier> notifier_;
};

class Scene : public Handled {
  public:
    explicit Scene(SceneActivation state) : activation(state) {}
    ~Scene() override;
    SceneActivation activation;

    // Adds a window to the scene's list (hidden until shown).
    std::shared_ptr<Window> addWindow(std::shared_ptr<Window> window);
    // A window of this scene that its list does not hold, as the system's own menu windows.
    std::shared_ptr<Window> attachUnlisted(std::shared_ptr<Window> window);
    void removeWindow(const Window& window);
    const std::vector<std::shared_ptr<Window>>& windows() const noexcept { return windows_; }

  private:
    friend class HeadlessHost;
    std::vector<std::shared_ptr<Window>> windows_;
    std::vector<std::weak_ptr<Window>> unlisted_;
    std::weak_ptr<HostNotifier> notifier_;
};

}  // namespace virela::headless
