// SPDX-License-Identifier: Apache-2.0
// Filing and printing the checks' verdicts.
#include "report.h"

#include <algorithm>
#include <filesystem>
#include <ostream>

namespace kxcompliance {
namespace {

// A check that fails on every frame says so a few times, then counts.
constexpr size_t kReasonsShown = 5;

const char *Name(Verdict verdict)
{
    switch (verdict) {
    case Verdict::kPass:
        return "PASS";
    case Verdict::kFail:
        return "FAIL";
    case Verdict::kSkip:
        return "SKIP";
    }
    return "?";
}

} // namespace

void Report::File(Result result)
{
    if (result.reasons.size() > kReasonsShown) {
        const size_t more = result.reasons.size() - kReasonsShown;
        result.reasons.resize(kReasonsShown);
        result.reasons.push_back("... and " + std::to_string(more) + " more");
    }
    if (live_ != nullptr) {
        *live_ << Name(result.verdict) << "  " << result.id;
        for (size_t i = 0; i < result.reasons.size(); ++i) {
            *live_ << (i == 0 ? "  " : "\n        ") << result.reasons[i];
        }
        *live_ << '\n' << std::flush;
    }
    results_.push_back(std::move(result));
}

bool Report::failed() const
{
    return Count(Verdict::kFail) > 0;
}

size_t Report::Count(Verdict verdict) const
{
    return static_cast<size_t>(
        std::count_if(results_.begin(), results_.end(), [&](const Result &r) { return r.verdict == verdict; }));
}

nlohmann::json Report::Json() const
{
    nlohmann::json checks = nlohmann::json::array();
    for (const Result &r : results_) {
        std::string verdict = Name(r.verdict);
        std::transform(verdict.begin(), verdict.end(), verdict.begin(), [](char c) { return c | 0x20; });
        checks.push_back({{"stage", r.stage}, {"id", r.id}, {"result", verdict}, {"reasons", r.reasons}});
    }
    return {{"pass", Count(Verdict::kPass)},
            {"fail", Count(Verdict::kFail)},
            {"skip", Count(Verdict::kSkip)},
            {"checks", checks}};
}

void Report::PrintSummary(std::ostream &out) const
{
    out << "summary: " << Count(Verdict::kPass) << " passed, " << Count(Verdict::kFail) << " failed, "
        << Count(Verdict::kSkip) << " skipped\n";
}

Check::Check(Report &report, std::string stage, std::string id) : report_(report)
{
    result_.stage = std::move(stage);
    result_.id = std::move(id);
}

Check::~Check()
{
    if (result_.verdict == Verdict::kPass && !note_.empty()) {
        result_.reasons.push_back(note_);
    }
    report_.File(std::move(result_));
}

bool Check::Expect(bool ok, const std::string &reason, std::source_location where)
{
    if (!ok) {
        Fail(reason, where);
    }
    return ok;
}

void Check::Fail(const std::string &reason, std::source_location where)
{
    result_.verdict = Verdict::kFail;
    result_.reasons.push_back(reason + " (" + std::filesystem::path(where.file_name()).filename().string() + ":" +
                              std::to_string(where.line()) + ")");
}

void Check::Skip(const std::string &reason)
{
    if (result_.verdict != Verdict::kFail) {
        result_.verdict = Verdict::kSkip;
        result_.reasons.push_back(reason);
    }
}

} // namespace kxcompliance
