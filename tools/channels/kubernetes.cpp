#include "channels/kubernetes.h"

#include "channels/plan_files.h"

namespace tessel::channels {

namespace {

std::string port_of(const std::string& endpoint) {
    return endpoint.substr(endpoint.rfind(':') + 1);
}

// Every line of `text`, indented.
std::string indented(const std::string& text, const std::string& indent) {
    std::string result;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size() - 1) + 1;
        result += indent + text.substr(at, end - at);
        at = end;
    }
    return result;
}

std::string config_map(const PlannedChannel& planned, std::size_t channels) {
    const Channel& channel = planned.channel;
    return "---\n"
           "apiVersion: v1\n"
           "kind: ConfigMap\n"
           "metadata:\n"
           "  name: tessel-" +
           channel.name +
           "\n"
           "  labels: {app: tessel, channel: " +
           channel.name +
           "}\n"
           "data:\n"
           "  " +
           channel.config + ": |\n" + indented(channel_toml(planned, channels), "    ");
}

std::string pod_head(const Channel& channel) {
    return "---\n"
           "apiVersion: v1\n"
           "kind: Pod\n"
           "metadata:\n"
           "  name: tessel-" +
           channel.name +
           "\n"
           "  labels: {app: tessel, channel: " +
           channel.name +
           "}\n"
           "spec:\n"
           "  securityContext:\n"
           "    runAsNonRoot: true\n"
           "    runAsUser: 65534\n"
           "    runAsGroup: 65534\n"
           "    fsGroup: 65534\n"
           "    seccompProfile: {type: RuntimeDefault}\n";
}

std::string container_security() {
    return "      securityContext:\n"
           "        allowPrivilegeEscalation: false\n"
           "        readOnlyRootFilesystem: true\n"
           "        capabilities: {drop: [ALL]}\n";
}

// The feed's container; `iface` is what replaces the interface of the plan.
std::string feed_container(const Channel& channel, const std::string& iface, const std::string& environment) {
    return "    - name: feed\n"
           "      image: tessel\n"
           "      imagePullPolicy: IfNotPresent\n"
           "      workingDir: /data\n"
           "      command: [tesselctl, run, --config, /etc/tessel/channel/" +
           channel.config + ", --, --iface, \"" + iface + "\"]\n" + environment +
           "      ports:\n"
           "        - {name: retrans, containerPort: " +
           port_of(channel.retrans) +
           ", protocol: UDP}\n"
           "        - {name: snapshot, containerPort: " +
           port_of(channel.snapshot) +
           ", protocol: TCP}\n"
           "      readinessProbe:\n"
           "        exec:\n"
           "          command: [tesselctl, --control, \"" +
           channel.control +
           "\", --timeout-ms, \"2000\", stats]\n"
           "        periodSeconds: 5\n"
           "        timeoutSeconds: 3\n" +
           container_security() +
           "      volumeMounts:\n"
           "        - {name: channel, mountPath: /etc/tessel/channel, readOnly: true}\n"
           "        - {name: data, mountPath: /data}\n";
}

std::string handler_container(const Channel& channel) {
    return "    # Your handler in place of this one.\n"
           "    - name: handler\n"
           "      image: tessel\n"
           "      imagePullPolicy: IfNotPresent\n"
           "      workingDir: /data\n"
           "      command: [tessel-listen, --mcast, \"" +
           channel.group + "\", --port, \"" + std::to_string(channel.port) +
           "\", --iface, 127.0.0.1, --session, " + channel.session +
           ", --retrans, \"127.0.0.1:" + port_of(channel.retrans) + "\", --out, handler.jsonl]\n" +
           container_security() +
           "      volumeMounts:\n"
           "        - {name: data, mountPath: /data}\n";
}

std::string volumes(const Channel& channel) {
    return "  volumes:\n"
           "    - name: channel\n"
           "      configMap: {name: tessel-" +
           channel.name +
           "}\n"
           "    - name: data\n"
           "      emptyDir: {}\n";
}

}  // namespace

std::string kubernetes_pods_text(const std::vector<PlannedChannel>& plan) {
    std::string text =
        "# A pod a channel: the feed and a handler beside it. Multicast arrives on the loopback interface "
        "that the\n"
        "# containers of a pod share, and leaves no pod.\n";
    for (const PlannedChannel& planned : plan) {
        text += config_map(planned, plan.size()) + pod_head(planned.channel) + "  containers:\n" +
                feed_container(planned.channel, "127.0.0.1", "") + handler_container(planned.channel) +
                volumes(planned.channel);
    }
    return text;
}

std::string kubernetes_host_text(const std::vector<PlannedChannel>& plan) {
    std::string text =
        "# A pod a channel in the network of its node, which has to carry multicast: handlers join from "
        "anywhere\n"
        "# in that network, and find retransmission and Snap-Shot at the node's address.\n";
    const std::string environment =
        "      env:\n"
        "        - name: NODE_ADDRESS\n"
        "          valueFrom:\n"
        "            fieldRef: {fieldPath: status.hostIP}\n";
    for (const PlannedChannel& planned : plan) {
        text += config_map(planned, plan.size()) + pod_head(planned.channel) +
                "  hostNetwork: true\n"
                "  dnsPolicy: ClusterFirstWithHostNet\n"
                "  containers:\n" +
                feed_container(planned.channel, "$(NODE_ADDRESS)", environment) + volumes(planned.channel);
    }
    return text;
}

}  // namespace tessel::channels
