// The page of moatctl report: HTML in one piece that needs nothing from anywhere.
#pragma once

#include "moatctl/bridge/matrix.hpp"
#include "moatctl/tables/problem.hpp"
#include "moatctl/verbs/scene.hpp"
#include "moatctl/verbs/status_view.hpp"

#include <string>
#include <utility>
#include <vector>

namespace moatctl
{

struct Report {
    const View& view;
    const Scene& scene; // of the view
    const Matrix& matrix;
    std::string time;
    std::vector<std::pair<std::string, std::string>> facts; // what, and how it is
    std::vector<NotInForceHere> notInForce;
    std::vector<Problem> findings;
    std::vector<std::vector<std::string>> history; // number, time, user, command, rows
    std::string noHistory;                         // why there is none
};

// nonce: letters and digits that nobody could know before; only what bears them is obeyed by the browser.
std::string pageOf(const Report& report, const std::string& nonce);

} // namespace moatctl
