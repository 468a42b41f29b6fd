#include "core/report.h"

#include <iomanip>
#include <iostream>

#include "core/registry.h"

// Lines go to standard output and are flushed one by one. Fixed notation with
// four decimals, once a real value set it, stays on the stream; integers are
// not affected by it.
namespace {

// A quiet run prints its error lines alone.
std::ostream& out() {
    static std::ostream discard(nullptr);
    return registry.host.quiet ? discard : std::cout;
}

void unitTail(const std::string& unit) {
    out() << ' ';
    if (!unit.empty()) out() << "[ " << unit << " ]";
}

void realField(double value) {
    out() << std::fixed << std::setprecision(4) << std::right << std::setfill(' ') << std::setw(16) << value;
}

void countLine(const std::string& label, long long value, const std::string& unit, char end) {
    out() << label << ' ' << std::right << std::setfill(' ') << std::setw(16) << value;
    unitTail(unit);
    out() << end << std::flush;
}

}  // namespace

void reportRule() { out() << std::string(80, '_') << "\n\n" << std::flush; }

void reportMessage(const std::string& text) { out() << text << '\n' << std::flush; }

void reportCount(const std::string& label, long long value, const std::string& unit) {
    countLine(label, value, unit, '\n');
}

void reportProgress(const std::string& label, long long value, const std::string& unit) {
    countLine(label, value, unit, '\r');
}

void reportReal(const std::string& label, double value, const std::string& unit) {
    out() << label << ' ';
    realField(value);
    unitTail(unit);
    out() << '\n' << std::flush;
}

void reportCountAndSize(const std::string& label, long long count, double size, const std::string& unit) {
    out() << label << ' ' << std::right << std::setfill(' ') << std::setw(16) << count << ' ';
    realField(size);
    unitTail(unit);
    out() << '\n' << std::flush;
}

void reportVector(const std::string& label, double x, double y, double z, const std::string& unit) {
    out() << label << ' ';
    for (double v : {x, y, z}) {
        realField(v);
        out() << ' ';
    }
    if (!unit.empty()) out() << "[ " << unit << " ]";
    out() << '\n' << std::flush;
}

void reportPair(const std::string& label1, double value1, const std::string& unit1,
                const std::string& label2, double value2, const std::string& unit2) {
    out() << label1 << ' ';
    realField(value1);
    unitTail(unit1);
    out() << label2 << ' ';
    realField(value2);
    unitTail(unit2);
    out() << '\n' << std::flush;
}

void reportWarning(const std::string& text) { out() << "warning :( \t" << text << '\n' << std::flush; }

void reportError(const std::string& text) { std::cout << "error :( \t" << text << '\n' << std::flush; }
