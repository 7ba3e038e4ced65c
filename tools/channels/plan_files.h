#pragma once

#include "channels/plan.h"

#include <string>
#include <vector>

// The files of a plan, as texts and on disk. The same plan gives the same bytes.
namespace tessel::channels {

struct PlanFile {
    std::string path;  // from the plan's folder
    std::string text;
};

// The configuration of one channel, for `tesselctl run --config`.
std::string channel_toml(const PlannedChannel& planned, std::size_t channels);

// A line "tessel@NAME" a channel: the instances of the service.
std::string instances_text(const std::vector<PlannedChannel>& plan);

// A service a channel, a receiver of all of them and the judge, for docker compose. Channels on the loopback
// interface share one network namespace; others use that of the host.
std::string compose_text(const std::vector<PlannedChannel>& plan);

// channels.json, NAME.toml, instances, compose.yaml, kubernetes/pods.yaml, kubernetes/host-network.yaml.
std::vector<PlanFile> plan_files(const std::vector<PlannedChannel>& plan);

// Writes them below `folder`, which is made where it is missing. False with the reason in `error`.
bool write_plan(const std::vector<PlannedChannel>& plan, const std::string& folder, std::string& error);

}  // namespace tessel::channels
