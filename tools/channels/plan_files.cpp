#include "channels/plan_files.h"

#include "channels/files.h"
#include "channels/kubernetes.h"

namespace tessel::channels {

namespace {

constexpr const char* loopback = "127.0.0.1";

std::string port_of(const std::string& endpoint) {
    return endpoint.substr(endpoint.rfind(':') + 1);
}

// One feed. The channels on the loopback interface share the network namespace of the first.
std::string compose_channel(const Channel& channel, const std::string& network) {
    return "  " + channel.name +
           ":\n"
           "    image: ${TESSEL_IMAGE:-tessel}\n"
           "    network_mode: " +
           network +
           "\n"
           "    stop_signal: SIGINT\n"
           "    volumes: [\".:/channels:ro\", \"data:/data\"]\n"
           "    healthcheck:\n"
           "      test: [\"CMD\", \"tesselctl\", \"--control\", \"" +
           channel.control +
           "\", \"--timeout-ms\", \"2000\", \"stats\"]\n"
           "    command: [\"sh\", \"-c\", \"mkdir -p truth && cd truth && rm -f " +
           channel.name + ".jsonl && exec tesselctl run --config /channels/" + channel.config + "\"]\n";
}

std::string name_list(const std::vector<PlannedChannel>& plan) {
    std::string names;
    for (const PlannedChannel& planned : plan) {
        names += (names.empty() ? "" : ", ") + planned.channel.name;
    }
    return names;
}

}  // namespace

std::string channel_toml(const PlannedChannel& planned, std::size_t channels) {
    const Channel& channel = planned.channel;
    std::string text = "# Channel " + channel.name + " of " + std::to_string(channels) +
                       ", made by tesselctl channels plan.\n[feed]\n";
    text += "mcast = \"" + channel.group + "\"\n";
    text += "port = " + std::to_string(channel.port) + "\n";
    text += "iface = \"" + channel.iface + "\"\n";
    text += "retrans_port = " + port_of(channel.retrans) + "\n";
    text += "snapshot_port = " + port_of(channel.snapshot) + "\n";
    text += "control_port = " + port_of(channel.control) + "\n";
    text += "session = \"" + channel.session + "\"\n";
    text += "seed = " + std::to_string(channel.seed) + "\n";
    text += "# Relative to the folder where it is started; remove the line for a feed without a truth log.\n";
    text += "truth_out = \"" + channel.name + ".jsonl\"\n";
    text += "symbols = [\n";
    for (std::size_t at = 0; at < planned.prices.size(); ++at) {
        text += "    \"" + channel.symbols[at] + ":" + planned.prices[at] + "\",\n";
    }
    return text + "]\n";
}

std::string instances_text(const std::vector<PlannedChannel>& plan) {
    std::string text;
    for (const PlannedChannel& planned : plan) {
        text += "tessel@" + planned.channel.name + "\n";
    }
    return text;
}

std::string compose_text(const std::vector<PlannedChannel>& plan) {
    const Channel& first = plan.front().channel;
    const bool shared = first.iface == loopback;
    const std::string with_first = shared ? "\"service:" + first.name + "\"" : "host";
    std::string text = "# " + std::to_string(plan.size()) +
                       " channels, a receiver of all of them and the judge:\n"
                       "#\n"
                       "#     docker compose up --exit-code-from judge\n"
                       "#\n"
                       "# TESSEL_SECONDS is how long the receiver listens (10).\n";
    text += shared ? "# All share the network namespace of the first channel, where multicast arrives.\n"
                   : "# The channels send on " + first.iface + ", an address of the host.\n";
    text += "version: \"2.4\"\nservices:\n";
    for (const PlannedChannel& planned : plan) {
        const bool is_first = &planned == &plan.front();
        text +=
            compose_channel(planned.channel, shared && is_first ? "${TESSEL_NETWORK:-bridge}" : with_first) +
            "\n";
    }
    text +=
        "  listen:\n"
        "    image: ${TESSEL_IMAGE:-tessel}\n"
        "    network_mode: " +
        with_first +
        "\n"
        "    depends_on: [" +
        name_list(plan) +
        "]\n"
        "    stop_signal: SIGINT\n"
        "    volumes: [\".:/channels:ro\", \"data:/data\"]\n"
        "    healthcheck:\n"
        "      disable: true\n"
        "    # It asks for what it has missed, so it begins with message 1 whenever it joins. Afterwards it "
        "stays until\n"
        "    # the judge is done: the first container that ends stops the others.\n"
        "    command: [\"sh\", \"-c\", \"rm -rf out out.done; tessel-listen --channels"
        " /channels/channels.json --out-dir out --seconds ${TESSEL_SECONDS:-10}; status=$$?;"
        " trap 'exit $$status' INT TERM; touch out.done; sleep 60 & wait; exit $$status\"]\n"
        "\n"
        "  judge:\n"
        "    image: ${TESSEL_IMAGE:-tessel}\n"
        "    network_mode: none\n"
        "    depends_on: [listen]\n"
        "    volumes: [\".:/channels:ro\", \"data:/data\"]\n"
        "    healthcheck:\n"
        "      disable: true\n"
        "    command: [\"sh\", \"-c\", \"rm -f out.done; until [ -e out.done ]; do sleep 0.2; done; exec"
        " tessel-judge --early --channels /channels/channels.json truth out\"]\n"
        "\n"
        "volumes:\n"
        "  data:\n";
    return text;
}

std::vector<PlanFile> plan_files(const std::vector<PlannedChannel>& plan) {
    ChannelList list;
    std::vector<PlanFile> files;
    for (const PlannedChannel& planned : plan) {
        list.push_back(planned.channel);
        files.push_back({planned.channel.config, channel_toml(planned, plan.size())});
    }
    files.push_back({"instances", instances_text(plan)});
    files.push_back({"compose.yaml", compose_text(plan)});
    files.push_back({"kubernetes/pods.yaml", kubernetes_pods_text(plan)});
    files.push_back({"kubernetes/host-network.yaml", kubernetes_host_text(plan)});
    // The list comes last: where it is, the rest is.
    files.push_back({"channels.json", channel_list_text(list)});
    return files;
}

bool write_plan(const std::vector<PlannedChannel>& plan, const std::string& folder, std::string& error) {
    if (!make_folder(folder, error) || !make_folder(folder + "/kubernetes", error)) {
        return false;
    }
    for (const PlanFile& file : plan_files(plan)) {
        if (!write_text_file(folder + "/" + file.path, file.text, error)) {
            return false;
        }
    }
    return true;
}

}  // namespace tessel::channels
