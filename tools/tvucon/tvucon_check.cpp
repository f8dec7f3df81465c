// tvucon_check.cpp - the check of a chain, as a command and before streaming.
#include "tvucon/tvucon_check.h"

#include <nlohmann/json.hpp>

#include <cinttypes>

#include "tvucon/tvucon_progress.h"

std::string ProblemText(const tvu::CheckProblem& p) {
  return p.file + (p.line ? ":" + std::to_string(p.line) : std::string()) + ": " + p.what;
}

int CheckChain(const TvuconOptions& o, tvu::ChainPlan* plan, tvu::CheckSummary* s, FILE* out) {
  std::string error;
  if (plan->Open(o.saveset, &error) != 0) {
    fprintf(stderr, "tvucon: %s\n", error.c_str());
    return 2;
  }
  Progress progress(o.progress, "check", "bytes", 0);
  plan->Check(!o.noRecords, s, [&](uint64_t done, uint64_t total) {
    progress.SetTotal(total);
    progress.Update(done);
  });
  progress.Done();
  // A consolidation told not to check only wants the stream's layout.
  if (o.noCheck) return s->problems.empty() ? 0 : 1;
  for (const tvu::CheckProblem& p : s->problems) {
    if (o.json) {
      nlohmann::json j = {{"file", p.file}, {"problem", p.what}};
      if (p.line) j["line"] = p.line;
      fprintf(out, "%s\n", j.dump().c_str());
    } else {
      fprintf(out, "%s\n", ProblemText(p).c_str());
    }
  }
  if (o.json && o.command == "check") {
    nlohmann::json j = {{"catalog", plan->CatalogPath()},  {"lines", s->lines},
                        {"items", s->items},               {"records", s->recordsChecked},
                        {"runs", s->runs.size()},          {"stream_bytes", s->streamBytes},
                        {"problems", s->problems.size()}};
    fprintf(out, "%s\n", nlohmann::json{{"summary", j}}.dump().c_str());
  }
  if (!o.quiet)
    fprintf(stderr,
            "tvucon: check of %s: %" PRIu64 " catalog lines, %" PRIu64 " items in %zu runs (%" PRIu64
            " bytes of stream), %" PRIu64 " records read, %.2f s: %zu problem%s\n",
            o.saveset.c_str(), s->lines, s->items, s->runs.size(), s->streamBytes, s->recordsChecked,
            progress.Seconds(), s->problems.size(), s->problems.size() == 1 ? "" : "s");
  return s->problems.empty() ? 0 : 1;
}

int RunCheck(const TvuconOptions& o, FILE* out) {
  tvu::ChainPlan plan;
  tvu::CheckSummary summary;
  return CheckChain(o, &plan, &summary, out) == 0 ? 0 : 1;
}
