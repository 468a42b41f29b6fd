// The console report: every line the library prints goes through these.
#pragma once

#include <string>

void reportRule();
void reportMessage(const std::string& text);
void reportCount(const std::string& label, long long value, const std::string& unit);
void reportReal(const std::string& label, double value, const std::string& unit);
void reportVector(const std::string& label, double x, double y, double z, const std::string& unit);
void reportPair(const std::string& label1, double value1, const std::string& unit1,
                const std::string& label2, double value2, const std::string& unit2);
// A count line ended by a carriage return, so that the next one overwrites it.
void reportProgress(const std::string& label, long long value, const std::string& unit);
void reportWarning(const std::string& text);
void reportError(const std::string& text);
// A value line with a count and a real size after it: label, count, size, unit.
void reportCountAndSize(const std::string& label, long long count, double size, const std::string& unit);
