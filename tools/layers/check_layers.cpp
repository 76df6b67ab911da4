// Checks every include under the declared folders against the include graph in a layers file
// (scripts/layers.txt): a folder may include its own files, the folders it lists, and the single
// headers it lists; nothing else in the tree. Third-party and system headers are not checked.
//
//   virela-check-layers ROOT [LAYERS_FILE]     (LAYERS_FILE defaults to ROOT/scripts/layers.txt)
//
// Exit status: 0 when every include follows the graph, 1 when something does not (one line each,
// then a count), 2 when the layers file cannot be read or makes no sense.

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace fs = std::filesystem;

namespace {

// One line of the layers file: a folder and what it may include.
struct Rule {
    std::string folder;
    std::vector<std::string> allowed;  // declared folders and single files, as written
    int line = 0;
};

struct Layers {
    std::vector<Rule> rules;
    std::vector<std::string> searchPaths;  // other folders the build searches for includes
};

struct Include {
    int line = 0;
    bool angled = false;
    std::string spelled;
};

constexpr std::string_view kSearchKey = "include-path";

bool isSource(const fs::path& path) {
    static const std::set<std::string> extensions{".h", ".hpp", ".cpp", ".mm", ".m"};
    return extensions.count(path.extension().string()) != 0;
}

// A path relative to the root in its plain form: "." and ".." folded, "/" between parts. A path
// that climbs above the root comes back with a leading "..".
std::string normalize(std::string_view path) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    while (start <= path.size()) {
        std::size_t end = path.find('/', start);
        if (end == std::string_view::npos) end = path.size();
        const std::string part(path.substr(start, end - start));
        if (part == "..") {
            if (!parts.empty() && parts.back() != "..") {
                parts.pop_back();
            } else {
                parts.push_back(part);
            }
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        start = end + 1;
    }
    std::string out;
    for (const auto& part : parts) out += (out.empty() ? "" : "/") + part;
    return out;
}

std::string parentOf(const std::string& path) {
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

bool within(const std::string& path, const std::string& folder) {
    return path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 &&
           path[folder.size()] == '/';
}

// A single header rather than a folder: its last part has an extension.
bool namesFile(const std::string& item) {
    const auto slash = item.rfind('/');
    return item.find('.', slash == std::string::npos ? 0 : slash) != std::string::npos;
}

std::vector<std::string> words(std::string_view text) {
    std::vector<std::string> out;
    std::istringstream in{std::string(text)};
    for (std::string word; in >> word;) out.push_back(normalize(word));
    return out;
}

// Reads "folder: allowed allowed ..." lines. "#" starts a comment; a line that starts with
// whitespace carries on the line above it.
std::optional<Layers> readLayers(const fs::path& file, std::ostream& err) {
    std::ifstream in(file);
    if (!in) {
        err << "layers: cannot read " << file.string() << "\n";
        return std::nullopt;
    }
    Layers layers;
    bool continuable = false;
    std::string text;
    for (int number = 1; std::getline(in, text); ++number) {
        if (const auto hash = text.find('#'); hash != std::string::npos) text.erase(hash);
        if (text.find_first_not_of(" \t\r") == std::string::npos) continue;
        if (text[0] == ' ' || text[0] == '\t') {
            if (!continuable) {
                err << file.string() << ":" << number << ": an indented line continues nothing\n";
                return std::nullopt;
            }
            auto more = words(text);
            auto& allowed = layers.rules.back().allowed;
            allowed.insert(allowed.end(), more.begin(), more.end());
            continue;
        }
        const auto colon = text.find(':');
        if (colon == std::string::npos) {
            err << file.string() << ":" << number << ": expected \"folder: allowed ...\"\n";
            return std::nullopt;
        }
        const auto key = words(std::string_view(text).substr(0, colon));
        const auto values = words(std::string_view(text).substr(colon + 1));
        if (key.size() != 1 || key[0].empty() || key[0].starts_with("..")) {
            err << file.string() << ":" << number << ": expected one folder before \":\"\n";
            return std::nullopt;
        }
        if (key[0] == kSearchKey) {
            layers.searchPaths.insert(layers.searchPaths.end(), values.begin(), values.end());
            continuable = false;
            continue;
        }
        layers.rules.push_back({key[0], values, number});
        continuable = true;
    }
    return layers;
}

class Checker {
  public:
    Checker(fs::path root, Layers layers, std::string layersName)
        : root_(std::move(root)), layers_(std::move(layers)), layersName_(std::move(layersName)) {
        for (const auto& rule : layers_.rules) byFolder_[rule.folder] = &rule;
    }

    // False when the file itself is inconsistent, which makes every other answer meaningless.
    bool checkDeclarations(std::ostream& err) {
        bool sound = true;
        std::set<std::string> seen;
        for (const auto& rule : layers_.rules) {
            const auto where = layersName_ + ":" + std::to_string(rule.line) + ": ";
            if (!seen.insert(rule.folder).second) {
                err << where << rule.folder << " is declared twice\n";
                sound = false;
            }
            for (const auto& item : rule.allowed) {
                if (namesFile(item) ? !ownerOf(item) : byFolder_.count(item) == 0) {
                    err << where << rule.folder << " lists " << item
                        << ", which lies in no declared folder\n";
                    sound = false;
                }
            }
        }
        return sound;
    }

    void checkFolders() {
        for (const auto& rule : layers_.rules) {
            if (!fs::is_directory(root_ / rule.folder)) {
                report(layersName_ + ":" + std::to_string(rule.line) + ": declares " + rule.folder +
                       ", which does not exist");
            }
            for (const auto& item : rule.allowed) {
                if (namesFile(item) && !fs::is_regular_file(root_ / item)) {
                    report(layersName_ + ":" + std::to_string(rule.line) + ": " + rule.folder +
                           " lists " + item + ", which does not exist");
                }
            }
        }
    }

    // A depth-first walk from each folder in declared order: every edge back onto the path
    // walked so far closes a circle, reported from where it starts.
    void checkCircles() {
        std::map<std::string, int> state;  // 1 on the current path, 2 done
        std::vector<std::string> path;
        for (const auto& rule : layers_.rules) visit(rule.folder, state, path);
    }

    void checkSources() {
        std::set<std::string> roots;
        for (const auto& rule : layers_.rules) {
            roots.insert(rule.folder.substr(0, rule.folder.find('/')));
        }
        std::vector<std::string> files;
        for (const auto& top : roots) {
            if (!fs::is_directory(root_ / top)) continue;
            for (auto it = fs::recursive_directory_iterator(root_ / top);
                 it != fs::recursive_directory_iterator(); ++it) {
                if (it->is_directory() && it->path().filename().string().starts_with(".")) {
                    it.disable_recursion_pending();
                } else if (it->is_regular_file() && isSource(it->path())) {
                    files.push_back(fs::relative(it->path(), root_).generic_string());
                }
            }
        }
        std::sort(files.begin(), files.end());
        std::set<std::string> undeclared;
        for (const auto& file : files) {
            const Rule* owner = ownerOf(file);
            if (!owner) {
                if (undeclared.insert(parentOf(file)).second) {
                    report(parentOf(file) + "/: in no folder that " + layersName_ + " declares");
                }
                continue;
            }
            for (const auto& include : includesOf(file)) checkInclude(file, *owner, include);
            ++checked_;
        }
    }

    int finish(std::ostream& out) const {
        for (const auto& line : findings_) out << line << "\n";
        if (findings_.empty()) {
            out << "layers: " << checked_ << " files, every include follows " << layersName_
                << "\n";
            return 0;
        }
        out << "layers: " << findings_.size() << " finding" << (findings_.size() == 1 ? "" : "s")
            << " against " << layersName_ << "\n";
        return 1;
    }

  private:
    // The declared folder that holds `path`: the longest one, so that a folder may be declared
    // inside another.
    const Rule* ownerOf(const std::string& path) const {
        const Rule* best = nullptr;
        for (const auto& rule : layers_.rules) {
            if (within(path, rule.folder) && (!best || rule.folder.size() > best->folder.size())) {
                best = &rule;
            }
        }
        return best;
    }

    std::vector<Include> includesOf(const std::string& file) const {
        std::vector<Include> out;
        std::ifstream in(root_ / file);
        std::string text;
        for (int number = 1; std::getline(in, text); ++number) {
            std::string_view rest(text);
            auto skipSpace = [&rest] {
                while (!rest.empty() && (rest.front() == ' ' || rest.front() == '\t')) {
                    rest.remove_prefix(1);
                }
            };
            skipSpace();
            if (!rest.starts_with('#')) continue;
            rest.remove_prefix(1);
            skipSpace();
            if (rest.starts_with("include")) {
                rest.remove_prefix(7);
            } else if (rest.starts_with("import")) {
                rest.remove_prefix(6);
            } else {
                continue;
            }
            skipSpace();
            if (rest.empty() || (rest.front() != '"' && rest.front() != '<')) continue;
            const char close = rest.front() == '"' ? '"' : '>';
            const auto end = rest.find(close, 1);
            if (end == std::string_view::npos) continue;
            out.push_back({number, close == '>', std::string(rest.substr(1, end - 1))});
        }
        return out;
    }

    // Where an include lands in the tree, as the compiler looks: a quoted one beside the including
    // file first, then from the root when its first part is a top-level folder, then in the
    // search paths. Nothing when it lands outside the tree (a system or third-party header).
    std::optional<std::string> resolve(const std::string& file, const Include& include) const {
        if (!include.angled) {
            const auto beside = normalize(parentOf(file) + "/" + include.spelled);
            if (!beside.starts_with("..") && fs::is_regular_file(root_ / beside)) return beside;
        }
        const auto rooted = normalize(include.spelled);
        if (rooted.starts_with("..")) return std::nullopt;
        const auto top = rooted.substr(0, rooted.find('/'));
        if (top != rooted && fs::is_directory(root_ / top)) return rooted;
        for (const auto& search : layers_.searchPaths) {
            const auto found = normalize(search + "/" + include.spelled);
            if (fs::is_regular_file(root_ / found)) return found;
        }
        return std::nullopt;
    }

    void checkInclude(const std::string& file, const Rule& from, const Include& include) {
        const auto target = resolve(file, include);
        if (!target) return;
        const char open = include.angled ? '<' : '"';
        const char close = include.angled ? '>' : '"';
        std::string what = file + ":" + std::to_string(include.line) + ": includes " + open +
                           include.spelled + close;
        if (*target != include.spelled) what += " (" + *target + ")";
        const Rule* to = ownerOf(*target);
        if (!to) {
            report(what + ", which lies in no folder that " + layersName_ + " declares");
            return;
        }
        if (to == &from) return;
        for (const auto& item : from.allowed) {
            if (item == to->folder || item == *target) return;
        }
        std::string listed;
        for (const auto& item : from.allowed) listed += " " + item;
        report(what + ", but " + from.folder + " may include only" +
               (listed.empty() ? " itself" : listed));
    }

    void visit(const std::string& folder, std::map<std::string, int>& state,
               std::vector<std::string>& path) {
        if (state[folder] == 2) return;
        if (state[folder] == 1) {
            const auto start = std::find(path.begin(), path.end(), folder);
            std::string circle;
            for (auto it = start; it != path.end(); ++it) circle += *it + " -> ";
            report(layersName_ + ": the declared graph runs in a circle: " + circle + folder);
            return;
        }
        state[folder] = 1;
        path.push_back(folder);
        for (const auto& item : byFolder_.at(folder)->allowed) {
            const Rule* next = namesFile(item) ? ownerOf(item) : byFolder_.at(item);
            if (next->folder != folder) visit(next->folder, state, path);
        }
        path.pop_back();
        state[folder] = 2;
    }

    void report(std::string line) { findings_.push_back(std::move(line)); }

    fs::path root_;
    Layers layers_;
    std::string layersName_;
    std::map<std::string, const Rule*> byFolder_;
    std::vector<std::string> findings_;
    std::size_t checked_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || argc > 3) {
        std::cerr << "usage: virela-check-layers ROOT [LAYERS_FILE]\n";
        return 2;
    }
    const fs::path root = argv[1];
    const fs::path file = argc == 3 ? fs::path(argv[2]) : root / "scripts" / "layers.txt";
    auto layers = readLayers(file, std::cerr);
    if (!layers) return 2;

    // Findings name the layers file as the tree knows it, when it lies in the tree.
    std::string name = fs::relative(file, root).generic_string();
    if (name.empty() || name.starts_with("..")) name = file.generic_string();

    Checker checker(root, std::move(*layers), name);
    if (!checker.checkDeclarations(std::cerr)) return 2;
    checker.checkFolders();
    checker.checkCircles();
    checker.checkSources();
    return checker.finish(std::cout);
}
