// SPDX-License-Identifier: Apache-2.0
// The checker's verdicts: one result per check, printed as it is filed,
// with the source line of every failure, and the whole run as JSON.
#ifndef KXCAMERA_TOOLS_COMPLIANCE_REPORT_H
#define KXCAMERA_TOOLS_COMPLIANCE_REPORT_H

#include <cstddef>
#include <iosfwd>
#include <source_location>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace kxcompliance {

enum class Verdict { kPass, kFail, kSkip };

struct Result {
    std::string stage;
    std::string id;
    Verdict verdict = Verdict::kPass;
    std::vector<std::string> reasons; // why it failed or was skipped, or what passed
};

class Report {
public:
    // `live` receives each result as it is filed; null keeps quiet.
    explicit Report(std::ostream *live) : live_(live) {}

    void File(Result result);
    bool failed() const;
    size_t Count(Verdict verdict) const;
    nlohmann::json Json() const;
    void PrintSummary(std::ostream &out) const;

private:
    std::ostream *live_;
    std::vector<Result> results_;
};

// One check in progress; files its result when it goes out of scope. A
// check passes unless something failed or it was skipped.
class Check {
public:
    Check(Report &report, std::string stage, std::string id);
    ~Check();
    Check(const Check &) = delete;
    Check &operator=(const Check &) = delete;

    // Records `reason` as a failure unless `ok`; returns `ok`.
    bool Expect(bool ok, const std::string &reason, std::source_location where = std::source_location::current());
    void Fail(const std::string &reason, std::source_location where = std::source_location::current());
    void Skip(const std::string &reason);
    // What was checked, shown beside a PASS.
    void Note(const std::string &text) { note_ = text; }
    bool failed() const { return result_.verdict == Verdict::kFail; }

private:
    Report &report_;
    Result result_;
    std::string note_;
};

} // namespace kxcompliance

#endif // KXCAMERA_TOOLS_COMPLIANCE_REPORT_H
