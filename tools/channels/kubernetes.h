#pragma once

#include "channels/plan.h"

#include <string>
#include <vector>

// Kubernetes manifests of a plan. Each channel is a ConfigMap with its configuration and a Pod.
namespace tessel::channels {

// A pod a channel with a handler beside the feed, on the pod's loopback interface.
std::string kubernetes_pods_text(const std::vector<PlannedChannel>& plan);

// A pod a channel in the network of its node, for handlers elsewhere in that network.
std::string kubernetes_host_text(const std::vector<PlannedChannel>& plan);

}  // namespace tessel::channels
