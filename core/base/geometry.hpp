#pragma once

#include <algorithm>
#include <cmath>
#include <limits>

namespace virela {

struct Point {
    double x = 0;
    double y = 0;
    friend bool operator==(const Point&, const Point&) = default;
};

struct Size {
    double width = 0;
    double height = 0;
    friend bool operator==(const Size&, const Size&) = default;
};

struct EdgeInsets {
    double top = 0;
    double left = 0;
    double bottom = 0;
    double right = 0;
    friend bool operator==(const EdgeInsets&, const EdgeInsets&) = default;
};

// A rectangle in points with the platform's semantics: the null rectangle (the result of
// intersecting disjoint rectangles) is distinct from an empty one and absorbs nothing in a
// union. Rectangles are kept standardised (non-negative width and height).
struct Rect {
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;

    static constexpr Rect null() noexcept {
        return {std::numeric_limits<double>::infinity(), std::numeric_limits<double>::infinity(), 0,
                0};
    }
    static Rect make(double x, double y, double width, double height) noexcept {
        Rect r{x, y, width, height};
        if (r.width < 0) {
            r.x += r.width;
            r.width = -r.width;
        }
        if (r.height < 0) {
            r.y += r.height;
            r.height = -r.height;
        }
        return r;
    }

    bool isNull() const noexcept { return std::isinf(x) || std::isinf(y); }
    // Null, zero-sized, or carrying a value that is not a finite number.
    bool isEmpty() const noexcept { return isNull() || !isFinite() || width <= 0 || height <= 0; }
    bool isFinite() const noexcept {
        return std::isfinite(x) && std::isfinite(y) && std::isfinite(width) &&
               std::isfinite(height);
    }

    double minX() const noexcept { return x; }
    double minY() const noexcept { return y; }
    double maxX() const noexcept { return x + width; }
    double maxY() const noexcept { return y + height; }
    double midX() const noexcept { return x + width / 2; }
    double midY() const noexcept { return y + height / 2; }
    double area() const noexcept { return width * height; }

    // Half-open on the far edges, as hit-testing is.
    bool contains(Point p) const noexcept {
        return !isEmpty() && p.x >= x && p.x < maxX() && p.y >= y && p.y < maxY();
    }
    bool contains(const Rect& r) const noexcept {
        return !isNull() && !r.isNull() && r.x >= x && r.y >= y && r.maxX() <= maxX() &&
               r.maxY() <= maxY();
    }
    bool intersects(const Rect& r) const noexcept { return !intersection(r).isEmpty(); }

    Rect intersection(const Rect& r) const noexcept {
        if (isNull() || r.isNull()) return null();
        const double left = std::max(x, r.x);
        const double top = std::max(y, r.y);
        const double right = std::min(maxX(), r.maxX());
        const double bottom = std::min(maxY(), r.maxY());
        if (!(right >= left) || !(bottom >= top)) return null();
        return {left, top, right - left, bottom - top};
    }
    Rect unionWith(const Rect& r) const noexcept {
        if (isNull()) return r;
        if (r.isNull()) return *this;
        const double left = std::min(x, r.x);
        const double top = std::min(y, r.y);
        return {left, top, std::max(maxX(), r.maxX()) - left, std::max(maxY(), r.maxY()) - top};
    }
    Rect offsetBy(double dx, double dy) const noexcept {
        return isNull() ? *this : Rect{x + dx, y + dy, width, height};
    }
    // Grows (negative values) or shrinks the rectangle on every side.
    Rect insetBy(double dx, double dy) const noexcept {
        if (isNull()) return *this;
        if (width - 2 * dx < 0 || height - 2 * dy < 0) return null();
        return {x + dx, y + dy, width - 2 * dx, height - 2 * dy};
    }

    friend bool operator==(const Rect&, const Rect&) = default;
};

// A 2D affine transform as the platform writes it: x' = a x + c y + tx, y' = b x + d y + ty.
struct AffineTransform {
    double a = 1;
    double b = 0;
    double c = 0;
    double d = 1;
    double tx = 0;
    double ty = 0;

    // Moves without rotating, scaling or shearing: a box stays the same box.
    bool isTranslation() const noexcept { return a == 1 && b == 0 && c == 0 && d == 1; }
    friend bool operator==(const AffineTransform&, const AffineTransform&) = default;
};

}  // namespace virela
