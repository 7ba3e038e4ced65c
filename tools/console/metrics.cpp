#include "console/metrics.h"

#include "base/version.h"
#include "console/counter_texts.h"

#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>

#include <utility>

namespace tessel::console {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

namespace {

constexpr double ns_per_s = 1e9;
constexpr const char* stage_names[latency_stages] = {"sip_to_kernel", "kernel_to_taken", "sip_to_taken"};

MetricFamily make_family(std::string name, std::string help, MetricType type) {
    MetricFamily family;
    family.name = std::move(name);
    family.help = std::move(help);
    family.type = type;
    return family;
}

void add_counter(std::vector<MetricFamily>& families, const std::string& name, const std::string& help,
                 std::uint64_t value) {
    MetricFamily family = make_family("tessel_" + name + "_total", help, MetricType::Counter);
    ClientMetric metric;
    metric.counter.value = static_cast<double>(value);
    family.metric.push_back(std::move(metric));
    families.push_back(std::move(family));
}

void add_gauge(std::vector<MetricFamily>& families, const std::string& name, const std::string& help,
               double value, std::vector<ClientMetric::Label> labels = {}) {
    MetricFamily family = make_family("tessel_" + name, help, MetricType::Gauge);
    ClientMetric metric;
    metric.label = std::move(labels);
    metric.gauge.value = value;
    family.metric.push_back(std::move(metric));
    families.push_back(std::move(family));
}

void add_receiver(std::vector<MetricFamily>& families, const ReceiverPicture& receiver) {
    add_counter(families, "receiver_messages", "Messages that the console took in order", receiver.messages);
    add_counter(families, "receiver_packets", "Packets of the session that the console received",
                receiver.packets);
    add_counter(families, "receiver_gaps", "Times that numbers were found missing", receiver.gaps);
    add_counter(families, "receiver_recovered", "Messages brought by the retransmission service",
                receiver.recovered);
    add_counter(families, "receiver_lost", "Messages that were never received", receiver.lost);
    add_counter(families, "receiver_requests", "Requests to the retransmission service", receiver.requests);
    add_counter(families, "receiver_duplicates", "Packets that brought nothing new", receiver.duplicates);
    add_counter(families, "receiver_reordered", "Packets that came after a later one", receiver.reordered);
    add_counter(families, "receiver_kernel_drops", "Packets for which the console's socket had no room",
                receiver.kernel_drops);
    add_counter(families, "receiver_undecoded", "Messages that could not be decoded", receiver.undecoded);
}

void add_latency(std::vector<MetricFamily>& families, const Picture& picture) {
    MetricFamily family =
        make_family("tessel_latency_seconds",
                    "From a message's SIP time to the kernel's receive stamp and to the console, one message "
                    "of each packet",
                    MetricType::Histogram);
    for (std::size_t stage = 0; stage < latency_stages; ++stage) {
        const LatencyPicture& latency = picture.latency[stage];
        ClientMetric metric;
        metric.label.push_back({"stage", stage_names[stage]});
        metric.histogram.sample_count = latency.total;
        metric.histogram.sample_sum = static_cast<double>(latency.sum_ns) / ns_per_s;
        for (std::size_t at = 0; at < latency_bounds_ns.size(); ++at) {
            metric.histogram.bucket.push_back(
                {latency.within[at], static_cast<double>(latency_bounds_ns[at]) / ns_per_s});
        }
        family.metric.push_back(std::move(metric));
    }
    families.push_back(std::move(family));
}

}  // namespace

std::string metrics_text(const Picture& picture, const ControlPicture& control, bool running) {
    std::vector<MetricFamily> families;
    add_gauge(families, "up", "1 while the feed is heard", running && picture.up ? 1 : 0);
    add_gauge(families, "control_up", "1 while the feed's control channel answers",
              running && control.up ? 1 : 0);
    add_gauge(families, "build_info", "Version of the console, always 1", 1,
              {{"version", std::string(version())}, {"commit", std::string(commit())}});
    for (const CounterText& each : counter_texts()) {
        add_counter(families, std::string(each.name), std::string(each.text),
                    ctl::counter(control.counters, each.name));
    }
    add_counter(families, "packets_sent", "Packets that the feed sent, repetitions not counted",
                control.counters.sent);
    add_counter(families, "packets_dropped", "Packets that the feed did not send, on purpose",
                control.counters.dropped);
    add_counter(families, "packets_duplicated", "Packets that the feed sent twice, on purpose",
                control.counters.duplicated);
    add_counter(families, "packets_reordered", "Packets that the feed held back for one, on purpose",
                control.counters.reordered);
    add_gauge(families, "next_sequence", "The number that the feed's next message will have",
              static_cast<double>(picture.next_sequence));
    add_gauge(families, "instruments", "Instruments that the console knows",
              static_cast<double>(picture.rows->size()));
    add_gauge(families, "runs", "Runs of the feed since the console was started",
              static_cast<double>(picture.runs));
    add_receiver(families, picture.receiver);
    add_latency(families, picture);
    return prometheus::TextSerializer().Serialize(families);
}

}  // namespace tessel::console
