#include "table.h"

#include <algorithm>
#include <cstdio>
#include <ostream>

namespace {

constexpr const char *kOurs = "ours";

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
    char buffer[160]; // wider than a line
    std::snprintf(buffer, sizeof buffer, format, values...);
    return buffer;
}

std::string figure(const Side *side, double (*of)(const Side &)) {
    return side != nullptr ? text("%.2f", of(*side)) : "-";
}

std::string ratio(const Side *own, const Side *peer, double (*of)(const Side &)) {
    return own != nullptr && peer != nullptr ? text("%.2f", of(*own) / of(*peer)) : "-";
}

double middle(const Side &side) { return median(side.ns); }

bool countsFaults(const Row &row) { return !row.sides.empty() && !row.sides.front().faults.empty(); }

// The medians of a row with page faults.
void printFaults(std::ostream &out, const Row &row, const char *quote, const char *separator) {
    const char *between = "";
    for (const Side &side : row.sides) {
        out << between << quote << side.name << quote << separator << text("%.0f", median(side.faults));
        between = ", ";
    }
}

void printLine(std::ostream &out, const Row &row, const Side *own, const Side *peer) {
    const std::string n = row.n != 0 ? std::to_string(row.n) : "";
    out << text("%-18s %8s  %-20s %9s %9s  %9s %9s  %7s %7s\n", row.work.c_str(), n.c_str(),
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

} // namespace

Side &tableSide(std::vector<Row> &rows, const std::string &work, const std::string &side, int64_t n, int threads) {
    auto row = std::find_if(rows.begin(), rows.end(),
                            [&](const Row &r) { return r.work == work && r.n == n && r.threads == threads; });
    if (row == rows.end()) {
        row = rows.insert(row, Row{work, n, threads, {}});
    }
    auto at = std::find_if(row->sides.begin(), row->sides.end(), [&](const Side &s) { return s.name == side; });
    if (at == row->sides.end()) {
        at = row->sides.insert(at, Side{side, {}, {}});
    }
    return *at;
}

void tablePrint(std::ostream &out, const std::vector<Row> &rows) {
    if (rows.empty()) {
        return;
    }
    out << text("%-18s %8s  %-20s %9s %9s  %9s %9s  %7s %7s\n", "work", "n", "peer", "ours min", "ours med",
                "peer min", "peer med", "med/med", "min/min");
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
    for (const Row &row : rows) {
        if (countsFaults(row)) {
            out << "\nPage faults, " << row.work << ": ";
            printFaults(out, row, "", " ");
        }
    }
    out << text(
        "\n\nTimes in ns. Noise: a median lies %.1f %% above its minimum here, as a rule; a ratio closer to 1 "
        "than that says nothing.\n",
        100 * noiseOf(rows));
}

void tableWriteJson(std::ostream &out, const std::vector<Row> &rows) {
    const char *comma = "";
    out << "{\"rows\":[";
    for (const Row &row : rows) {
        const Side *const own = ownSide(row);
        out << comma << "\n {\"work\":\"" << row.work << "\",\"n\":" << row.n << ",\"threads\":" << row.threads
            << ",\"ours_ns\":" << (own != nullptr ? figure(own, middle) : "null") << ",\"peers\":{";
        const char *peerComma = "";
        for (const Side &side : row.sides) {
            if (&side != own) {
                out << peerComma << '"' << side.name << "\":" << figure(&side, middle);
                peerComma = ",";
            }
        }
        out << '}';
        if (countsFaults(row)) {
            out << ",\"faults\":{";
            printFaults(out, row, "\"", ":");
            out << '}';
        }
        out << '}';
        comma = ",";
    }
    out << "\n]}\n";
}
