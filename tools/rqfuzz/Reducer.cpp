// The reducer's edits: the request text as a tree of lines (a line ending in '{' opens a
// block, one beginning with '}' closes it), and the calls within a line found by their
// parentheses.

#include "Reducer.h"

#include <cctype>
#include <vector>

namespace {

struct Item {
    std::string m_head;
    std::vector<Item> m_children;
    std::string m_tail;
    bool m_bBlock = false;
};

std::string Trimmed(const std::string& line) {
    const size_t first = line.find_first_not_of(" \t");
    if (first == std::string::npos)
        return "";
    const size_t last = line.find_last_not_of(" \t\r");
    return line.substr(first, last - first + 1);
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos)
            end = text.size();
        const std::string line = text.substr(start, end - start);
        const std::string trimmed = Trimmed(line);
        if (!trimmed.empty() && trimmed[0] != '#')
            lines.push_back(line);
        start = end + 1;
    }
    return lines;
}

void ParseItems(const std::vector<std::string>& lines, size_t& i, Item& parent) {
    while (i < lines.size()) {
        const std::string trimmed = Trimmed(lines[i]);
        if (trimmed[0] == '}') {
            parent.m_tail = lines[i++];
            return;
        }
        Item item;
        item.m_head = lines[i++];
        if (trimmed.back() == '{') {
            item.m_bBlock = true;
            ParseItems(lines, i, item);
        }
        parent.m_children.push_back(std::move(item));
    }
}

Item Parse(const std::string& text) {
    Item root;  // a block of no line of its own
    size_t i = 0;
    ParseItems(Lines(text), i, root);
    return root;
}

void Render(const Item& item, std::string& out) {
    out += item.m_head + "\n";
    for (const Item& child : item.m_children)
        Render(child, out);
    if (item.m_bBlock)
        out += item.m_tail + "\n";
}

std::string RenderRoot(const Item& root) {
    std::string out;
    for (const Item& child : root.m_children)
        Render(child, out);
    return out;
}

using Path = std::vector<size_t>;

void CollectPaths(const Item& item, Path& path, std::vector<Path>& paths) {
    for (size_t i = 0; i < item.m_children.size(); ++i) {
        path.push_back(i);
        paths.push_back(path);
        CollectPaths(item.m_children[i], path, paths);
        path.pop_back();
    }
}

Item& At(Item& root, const Path& path) {
    Item* item = &root;
    for (size_t i : path)
        item = &item->m_children[i];
    return *item;
}

const Item& At(const Item& root, const Path& path) {
    return At(const_cast<Item&>(root), path);
}

std::string FirstWord(const std::string& line) {
    const std::string t = Trimmed(line);
    size_t end = 0;
    while (end < t.size() && (std::isalnum(static_cast<unsigned char>(t[end])) || t[end] == '_'))
        ++end;
    return t.substr(0, end);
}

bool IsListHead(const std::string& word) {
    return word == "list" || word == "union" || word == "intersect" || word == "except" ||
           word == "breakfilter";
}

bool IsFromHead(const std::string& word) {
    return word == "table" || word == "join" || word == "derived";
}

// ---- Calls within a line ---------------------------------------------------------------------

struct Call {
    size_t m_start;  // the name's first character (the parenthesis for a bare tuple)
    size_t m_end;    // one past the closing parenthesis
    std::string m_name;
    std::vector<std::pair<size_t, size_t>> m_args;  // trimmed spans
};

bool IsIdent(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_';
}

std::vector<Call> FindCalls(const std::string& line) {
    std::vector<Call> calls;
    std::vector<size_t> inString(line.size() + 1, 0);
    bool bString = false;
    for (size_t i = 0; i < line.size(); ++i) {
        if (bString) {
            inString[i] = 1;
            if (line[i] == '\\')
                inString[++i] = 1;
            else if (line[i] == '"')
                bString = false;
        } else if (line[i] == '"') {
            inString[i] = 1;
            bString = true;
        }
    }
    for (size_t open = 0; open < line.size(); ++open) {
        if (line[open] != '(' || inString[open])
            continue;
        Call call;
        size_t start = open;
        while (start > 0 && IsIdent(line[start - 1]))
            --start;
        call.m_start = start;
        call.m_name = line.substr(start, open - start);
        int depth = 0;
        size_t argStart = open + 1;
        size_t i = open;
        for (; i < line.size(); ++i) {
            if (inString[i])
                continue;
            if (line[i] == '(')
                ++depth;
            else if (line[i] == ')' && --depth == 0)
                break;
            else if (line[i] == ',' && depth == 1) {
                call.m_args.push_back({argStart, i});
                argStart = i + 1;
            }
        }
        if (i >= line.size())
            continue;  // the call continues on later lines (a subquery)
        if (Trimmed(line.substr(argStart, i - argStart)).size() > 0)
            call.m_args.push_back({argStart, i});
        for (auto& [a, b] : call.m_args) {
            while (a < b && line[a] == ' ')
                ++a;
            while (b > a && line[b - 1] == ' ')
                --b;
        }
        call.m_end = i + 1;
        calls.push_back(std::move(call));
    }
    return calls;
}

bool IsCondition(const std::string& name) {
    static const char* const kNames[] = {"Eq", "Ne",  "Lt",     "Le", "Gt",     "Ge",      "And",
                                         "Or", "Not", "IsNull", "In", "Exists", "Between", "Like"};
    for (const char* n : kNames)
        if (name == n)
            return true;
    return false;
}

// An operand that is a field or a flag of its call (`by=(..)`, `distinct`), not a value.
bool IsField(const std::string& arg) {
    if (arg.find('=') != std::string::npos && arg.find('(') > arg.find('='))
        return true;
    return !arg.empty() && std::islower(static_cast<unsigned char>(arg[0])) &&
           arg.find_first_of("(\". ") == std::string::npos && arg != "null";
}

std::string Splice(const std::string& line, size_t a, size_t b, const std::string& with) {
    return line.substr(0, a) + with + line.substr(b);
}

// Edits of one line that holds no block: calls and column references.
void LineEdits(const std::string& line, std::vector<std::string>& out) {
    for (const Call& call : FindCalls(line)) {
        std::vector<std::pair<size_t, size_t>> values;
        for (const auto& arg : call.m_args)
            if (!IsField(line.substr(arg.first, arg.second - arg.first)))
                values.push_back(arg);
        if (!call.m_name.empty()) {
            for (const auto& [a, b] : values)
                out.push_back(Splice(line, call.m_start, call.m_end, line.substr(a, b - a)));
            out.push_back(Splice(line, call.m_start, call.m_end,
                                 IsCondition(call.m_name) ? "Eq(1, 1)" : "1"));
        }
        if (values.size() >= 2) {
            for (size_t i = 0; i < call.m_args.size(); ++i) {
                const auto& [a, b] = call.m_args[i];
                // The operand with the comma before it (after it, for the first).
                const size_t from = i == 0 ? a : line.rfind(',', a);
                const size_t to = i == 0 ? line.find_first_not_of(' ', line.find(',', b) + 1) : b;
                if (from != std::string::npos && to != std::string::npos && from < to)
                    out.push_back(Splice(line, from, to, ""));
            }
        }
        // Fields: drop each one.
        for (const auto& [a, b] : call.m_args) {
            if (IsField(line.substr(a, b - a))) {
                const size_t from = line.rfind(',', a);
                if (from != std::string::npos && from > call.m_start)
                    out.push_back(Splice(line, from, b, ""));
            }
        }
    }
    // Column references: t3.NAME and @label.N become a constant.
    for (size_t i = 0; i < line.size(); ++i) {
        const bool bDerived = line[i] == '@';
        const bool bTable = line[i] == 't' && (i == 0 || !IsIdent(line[i - 1])) &&
                            i + 1 < line.size() &&
                            std::isdigit(static_cast<unsigned char>(line[i + 1]));
        if (!bDerived && !bTable)
            continue;
        size_t j = i + 1;
        while (j < line.size() && IsIdent(line[j]))
            ++j;
        if (j >= line.size() || line[j] != '.')
            continue;
        size_t k = j + 1;
        while (k < line.size() && IsIdent(line[k]))
            ++k;
        if (k == j + 1)
            continue;
        if (Trimmed(line).rfind("table ", 0) == 0 || Trimmed(line).rfind("derived ", 0) == 0)
            continue;
        out.push_back(Splice(line, i, k, "1"));
        out.push_back(Splice(line, i, k, "null"));
        i = k;
    }
}

// Edits of a head: flags, row limits, annotations, sort keys.
void HeadEdits(const std::string& line, std::vector<std::string>& out) {
    static const char* const kWords[] = {" distinct", " all", " desc", " nulls=first",
                                         " nulls=last"};
    for (const char* word : kWords) {
        for (size_t at = line.find(word); at != std::string::npos; at = line.find(word, at + 1)) {
            const size_t end = at + std::string(word).size();
            if (end == line.size() || line[end] == ' ' || line[end] == ',')
                out.push_back(Splice(line, at, end, ""));
        }
    }
    for (const char* field : {" limit=", " offset="}) {
        const size_t at = line.find(field);
        if (at != std::string::npos) {
            size_t end = at + std::string(field).size();
            while (end < line.size() && std::isdigit(static_cast<unsigned char>(line[end])))
                ++end;
            out.push_back(Splice(line, at, end, ""));
        }
    }
    for (size_t at = line.find(" ["); at != std::string::npos; at = line.find(" [", at + 1)) {
        const size_t end = line.find(']', at);
        if (end != std::string::npos)
            out.push_back(Splice(line, at, end + 1, ""));
    }
    const std::string t = Trimmed(line);
    if (t.rfind("orderby ", 0) == 0) {
        const size_t indent = line.find_first_not_of(' ');
        std::vector<std::string> keys;
        size_t start = std::string("orderby ").size();
        for (size_t comma = t.find(", ", start);; comma = t.find(", ", start)) {
            keys.push_back(
                t.substr(start, comma == std::string::npos ? std::string::npos : comma - start));
            if (comma == std::string::npos)
                break;
            start = comma + 2;
        }
        for (size_t drop = 0; keys.size() > 1 && drop < keys.size(); ++drop) {
            std::string edited = line.substr(0, indent) + "orderby ";
            bool bFirst = true;
            for (size_t i = 0; i < keys.size(); ++i) {
                if (i == drop)
                    continue;
                edited += (bFirst ? "" : ", ") + keys[i];
                bFirst = false;
            }
            out.push_back(edited);
        }
    }
}

// Every list-like (or FROM-item-like) block below `item`, as paths relative to it.
void SameClassBlocks(const Item& item, bool bList, Path& path, std::vector<Path>& found) {
    for (size_t i = 0; i < item.m_children.size(); ++i) {
        const Item& child = item.m_children[i];
        path.push_back(i);
        const std::string word = FirstWord(child.m_head);
        if (child.m_bBlock && (bList ? IsListHead(word) : IsFromHead(word)))
            found.push_back(path);
        else if (!bList && word == "table")
            found.push_back(path);
        SameClassBlocks(child, bList, path, found);
        path.pop_back();
    }
}

std::string Reindent(const Item& item, const std::string& indent) {
    std::string text;
    Render(item, text);
    // The replacement keeps the indentation of the place it moves to (only for readability).
    const size_t own = item.m_head.find_first_not_of(' ');
    std::string out;
    for (const std::string& line : Lines(text)) {
        const size_t blanks = std::min(own, line.find_first_not_of(' '));
        out += indent + line.substr(blanks) + "\n";
    }
    return out;
}

// Replaces `@label.N` (not followed by a digit) by `with` throughout the text.
std::string ReplaceReference(const std::string& text, const std::string& ref,
                             const std::string& with) {
    std::string out;
    size_t start = 0;
    for (size_t at = text.find(ref); at != std::string::npos; at = text.find(ref, start)) {
        const size_t end = at + ref.size();
        out += text.substr(start, at - start);
        if (end < text.size() && std::isdigit(static_cast<unsigned char>(text[end])))
            out += ref;
        else
            out += with;
        start = end;
    }
    return out + text.substr(start);
}

// `derived tN { list @L { select {...} from {...} } }`: the FROM items take the derived
// table's place and each `@L.k` becomes the column's expression.
bool InlineDerived(Item root, const Path& path, std::string& out) {
    Item& derived = At(root, path);
    if (FirstWord(derived.m_head) != "derived" || derived.m_children.size() != 1)
        return false;
    const Item& list = derived.m_children[0];
    if (FirstWord(list.m_head) != "list" || list.m_head.find(" distinct") != std::string::npos ||
        list.m_head.find(" limit=") != std::string::npos || list.m_children.size() != 2)
        return false;
    const Item& select = list.m_children[0];
    const Item& from = list.m_children[1];
    if (FirstWord(select.m_head) != "select" || FirstWord(from.m_head) != "from")
        return false;
    const std::string head = Trimmed(list.m_head);
    const size_t labelEnd = head.find_first_of(" {", 5);
    const std::string label = head.substr(5, labelEnd - 5);
    if (label.empty() || label[0] != '@')
        return false;
    std::vector<std::pair<std::string, std::string>> columns;
    for (const Item& column : select.m_children) {
        const std::string t = Trimmed(column.m_head);
        const size_t colon = t.find(": ");
        if (column.m_bBlock || colon == std::string::npos)
            return false;
        columns.push_back({label + "." + t.substr(0, colon), t.substr(colon + 2)});
    }
    Item& parent = At(root, Path(path.begin(), path.end() - 1));
    const std::vector<Item> items = from.m_children;
    parent.m_children.erase(parent.m_children.begin() + static_cast<long>(path.back()));
    parent.m_children.insert(parent.m_children.begin() + static_cast<long>(path.back()),
                             items.begin(), items.end());
    out = RenderRoot(root);
    for (const auto& [ref, expr] : columns)
        out = ReplaceReference(out, ref, expr);
    return true;
}

// The candidates for a text, biggest edits first.
std::vector<std::string> Candidates(const std::string& text) {
    const Item root = Parse(text);
    std::vector<Path> paths;
    Path path;
    CollectPaths(root, path, paths);
    std::vector<std::string> out;
    // Whole items, outermost first (the request's own line stays).
    for (const Path& p : paths) {
        if (p.size() < 2)
            continue;
        Item copy = root;
        Item& parent = At(copy, Path(p.begin(), p.end() - 1));
        parent.m_children.erase(parent.m_children.begin() + static_cast<long>(p.back()));
        out.push_back(RenderRoot(copy));
    }
    // A block replaced by one nested in it.
    for (const Path& p : paths) {
        const Item& item = At(root, p);
        const std::string word = FirstWord(item.m_head);
        const bool bList = IsListHead(word);
        if (!item.m_bBlock || (!bList && !IsFromHead(word)))
            continue;
        std::vector<Path> inner;
        Path rel;
        SameClassBlocks(item, bList, rel, inner);
        for (const Path& r : inner) {
            Item copy = root;
            Item& target = At(copy, p);
            Path full = p;
            full.insert(full.end(), r.begin(), r.end());
            const Item replacement = At(copy, full);
            const std::string indent =
                target.m_head.substr(0, target.m_head.find_first_not_of(' '));
            // Re-parse the re-indented replacement so that the copy stays a tree of lines.
            Item parsed = Parse(Reindent(replacement, indent));
            if (parsed.m_children.size() != 1)
                continue;
            target = parsed.m_children[0];
            out.push_back(RenderRoot(copy));
        }
    }
    for (const Path& p : paths) {
        std::string inlined;
        if (InlineDerived(root, p, inlined))
            out.push_back(inlined);
    }
    // Heads and lines.
    for (const Path& p : paths) {
        const Item& item = At(root, p);
        std::vector<std::string> lines;
        HeadEdits(item.m_head, lines);
        if (!item.m_bBlock)
            LineEdits(item.m_head, lines);
        for (const std::string& line : lines) {
            Item copy = root;
            At(copy, p).m_head = line;
            out.push_back(RenderRoot(copy));
        }
    }
    return out;
}

// Fewer lines, or as many and fewer characters: every kept edit shrinks the text, so the
// reduction ends.
bool Smaller(const std::string& a, const std::string& b) {
    const size_t la = Lines(a).size(), lb = Lines(b).size();
    return la < lb || (la == lb && a.size() < b.size());
}

}  // namespace

size_t RequestReducer::CountLines(const std::string& text) {
    return Lines(text).size();
}

bool RequestReducer::Try(const std::string& candidate) {
    if (m_stats.m_tried >= m_maxTries)
        return false;
    ++m_stats.m_tried;
    return m_predicate(candidate);
}

std::string RequestReducer::Reduce(const std::string& text, ReduceStats* pStats) {
    m_stats = ReduceStats();
    m_stats.m_linesBefore = CountLines(text);
    std::string current = RenderRoot(Parse(text));
    bool bProgress = true;
    while (bProgress && m_stats.m_tried < m_maxTries) {
        bProgress = false;
        std::vector<std::string> candidates = Candidates(current);
        for (size_t i = 0; i < candidates.size() && m_stats.m_tried < m_maxTries;) {
            if (Smaller(candidates[i], current) && Try(candidates[i])) {
                current = candidates[i];
                ++m_stats.m_steps;
                bProgress = true;
                // The list changes with the text; going on from the same place keeps one
                // pass from judging the edits before it again.
                candidates = Candidates(current);
                continue;
            }
            ++i;
        }
    }
    m_stats.m_linesAfter = CountLines(current);
    if (pStats != nullptr)
        *pStats = m_stats;
    return current;
}
