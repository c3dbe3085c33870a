#include "table.h"

#include <algorithm>
#include <cstdio>
#include <ostream>
#include <tuple>
#include <utility>

namespace {

constexpr const char *kOurs = "ours";
constexpr const char *kOursLocal = "ours_local";
constexpr const char *kLocalSuffix = "_local";

double least(const Side &side) { return *std::min_element(side.ns.begin(), side.ns.end()); }

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t half = values.size() / 2;
    return values.size() % 2 != 0 ? values[half] : (values[half - 1] + values[half]) / 2;
}

const Side *ownSide(const Row &row) {
    const auto own = std::find_if(row.sides.begin(), row.sides.end(), [](const Side &s) { return s.name == kOurs; });
    return own != row.sides.end() ? &*own : nullptr;
}

template <class... Values> std::string text(const char *format, Values... values) {
    char buffer[400]; // longer than a line
    std::snprintf(buffer, sizeof buffer, format, values...);
    return buffer;
}

// Four digits at least, and none that means nothing.
std::string figure(const Side *side, double (*of)(const Side &)) {
    const double value = side != nullptr ? of(*side) : 0;
    return side != nullptr ? text(value < 100 ? "%.2f" : value < 10000 ? "%.1f" : "%.0f", value) : "-";
}

std::string ratio(const Side *own, const Side *peer, double (*of)(const Side &)) {
    return own != nullptr && peer != nullptr ? text("%.2f", of(*own) / of(*peer)) : "-";
}

double middle(const Side &side) { return median(side.ns); }

std::string peak(const Side &side) { return text("%.0f", side.peakKiB); }
bool hasPeak(const Side &side) { return side.peakKiB >= 0; }
std::string faults(const Side &side) { return text("%.0f", median(side.faults)); }
bool hasFaults(const Side &side) { return !side.faults.empty(); }

// One figure of each side that has it, with its name in front.
using Has = bool (*)(const Side &);
using Tell = std::string (*)(const Side &);

bool anyHas(const Row &row, Has has) { return std::any_of(row.sides.begin(), row.sides.end(), has); }

void printSides(std::ostream &out, const Row &row, Has has, Tell tell, const char *quote, const char *separator) {
    const char *between = "";
    for (const Side &side : row.sides) {
        if (has(side)) {
            out << between << quote << side.name << quote << separator << tell(side);
            between = *quote != 0 ? "," : ", ";
        }
    }
}

void printSection(std::ostream &out, const std::vector<Row> &rows, const char *title, Has has, Tell tell) {
    for (const Row &row : rows) {
        if (anyHas(row, has)) {
            out << '\n' << title << ", " << row.work << (row.n != 0 ? ' ' + std::to_string(row.n) : "") << ": ";
            printSides(out, row, has, tell, "", " ");
        }
    }
}

constexpr const char *kColumns = "%-18s %6s %3s  %-25s %9s %9s  %9s %9s  %7s %7s\n";

void printLine(std::ostream &out, const Row &row, const Side *own, const Side *peer) {
    const std::string n = row.n != 0 ? std::to_string(row.n) : "";
    out << text(kColumns, row.work.c_str(), n.c_str(), std::to_string(row.threads).c_str(),
                peer != nullptr ? peer->name.c_str() : "-", figure(own, least).c_str(), figure(own, middle).c_str(),
                figure(peer, least).c_str(), figure(peer, middle).c_str(), ratio(own, peer, middle).c_str(),
                ratio(own, peer, least).c_str());
}

// How far the repetitions of one side typically lie above its best.
double noiseOf(const std::vector<Row> &rows) {
    std::vector<double> excess;
    for (const Row &row : rows) {
        for (const Side &side : row.sides) {
            excess.push_back(middle(side) / least(side) - 1);
        }
    }
    return median(excess);
}

// The side of that name is taken off the row.
std::vector<Side> takeOff(Row &row, const char *name) {
    std::vector<Side> taken;
    const auto at = std::find_if(row.sides.begin(), row.sides.end(), [&](const Side &s) { return s.name == name; });
    if (at != row.sides.end()) {
        taken.push_back(std::move(*at));
        row.sides.erase(at);
    }
    return taken;
}

void writeFigures(std::ostream &out, const Row &row, const Side *own, double (*of)(const Side &)) {
    const char *comma = "";
    for (const Side &side : row.sides) {
        if (&side != own) {
            out << comma << '"' << side.name << "\":" << text("%.2f", of(side));
            comma = ",";
        }
    }
}

void writeRow(std::ostream &out, const Row &row) {
    const Side *const own = ownSide(row);
    const auto ownFigure = [&](double (*of)(const Side &)) {
        return own != nullptr ? text("%.2f", of(*own)) : "null";
    };
    out << "{\"work\":\"" << row.work << "\",\"n\":" << row.n << ",\"threads\":" << row.threads
        << ",\"ours_ns\":" << ownFigure(middle) << ",\"peers\":{";
    writeFigures(out, row, own, middle);
    out << "},\"ours_min_ns\":" << ownFigure(least) << ",\"peers_min\":{";
    writeFigures(out, row, own, least);
    for (const auto &[name, has, tell] : {std::tuple<const char *, Has, Tell>("peak_kib", hasPeak, peak),
                                          std::tuple<const char *, Has, Tell>("faults", hasFaults, faults)}) {
        if (anyHas(row, has)) {
            out << "},\"" << name << "\":{";
            printSides(out, row, has, tell, "\"", ":");
        }
    }
    out << "}}";
}

} // namespace

Side &tableSide(std::vector<Row> &rows, const std::string &work, const std::string &side, int64_t n, int threads) {
    auto row = std::find_if(rows.begin(), rows.end(),
                            [&](const Row &r) { return r.work == work && r.n == n && r.threads == threads; });
    if (row == rows.end()) {
        row = rows.insert(row, Row{work, n, threads, {}});
    }
    auto at = std::find_if(row->sides.begin(), row->sides.end(), [&](const Side &s) { return s.name == side; });
    if (at == row->sides.end()) {
        at = row->sides.insert(at, Side{side, {}, {}, {}});
    }
    return *at;
}

void tableFinish(std::vector<Row> &rows) {
    std::vector<Row> finished;
    for (Row &row : rows) {
        std::stable_sort(row.sides.begin(), row.sides.end(),
                         [](const Side &a, const Side &b) { return middle(a) < middle(b); });
        std::vector<Side> local = takeOff(row, kOursLocal);
        finished.push_back(row);
        if (!local.empty()) {
            takeOff(row, kOurs);
            local.front().name = kOurs;
            row.work += kLocalSuffix;
            row.sides.push_back(std::move(local.front()));
            finished.push_back(std::move(row));
        }
    }
    rows = std::move(finished);
}

void tablePrint(std::ostream &out, const std::vector<Row> &rows) {
    if (rows.empty()) {
        return;
    }
    out << text(kColumns, "work", "n", "thr", "peer", "ours min", "ours med", "peer min", "peer med", "med/med",
                "min/min");
    for (const Row &row : rows) {
        const Side *const own = ownSide(row);
        bool alone = true;
        for (const Side &side : row.sides) {
            if (&side != own) {
                printLine(out, row, own, &side);
                alone = false;
            }
        }
        if (alone) {
            printLine(out, row, own, nullptr);
        }
    }
    printSection(out, rows, "Page faults", hasFaults, faults);
    printSection(out, rows, "Peak memory in KiB", hasPeak, peak);
    out << text(
        "\n\nTimes in ns of one round, on 2 threads of one round of each. Noise: a median lies %.1f %% above its "
        "minimum here, as a rule; a ratio closer to 1 than that says nothing.\n",
        100 * noiseOf(rows));
}

void tableWriteJson(std::ostream &out, const std::vector<Row> &rows) {
    const char *between = "\n ";
    out << "{\"rows\":[";
    for (const Row &row : rows) {
        out << between;
        writeRow(out, row);
        between = ",\n ";
    }
    out << "\n]}\n";
}
