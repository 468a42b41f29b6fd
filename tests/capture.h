// Captures what the report prints to standard output while it lives.
#pragma once

#include <iostream>
#include <sstream>
#include <string>
#include <vector>

class ReportCapture {
public:
    ReportCapture() : saved_(std::cout.rdbuf(buffer_.rdbuf())), flags_(std::cout.flags()), precision_(std::cout.precision()) {}
    ~ReportCapture() { restore(); }
    ReportCapture(const ReportCapture&) = delete;
    ReportCapture& operator=(const ReportCapture&) = delete;

    std::string text() const { return buffer_.str(); }

    // The captured text split at newlines (a trailing empty piece is dropped).
    std::vector<std::string> lines() const {
        std::vector<std::string> result;
        std::istringstream in(buffer_.str());
        for (std::string line; std::getline(in, line);) result.push_back(line);
        return result;
    }

    void restore() {
        if (!saved_) return;
        std::cout.rdbuf(saved_);
        std::cout.flags(flags_);
        std::cout.precision(precision_);
        saved_ = nullptr;
    }

private:
    std::ostringstream buffer_;
    std::streambuf* saved_;
    std::ios::fmtflags flags_;
    std::streamsize precision_;
};
