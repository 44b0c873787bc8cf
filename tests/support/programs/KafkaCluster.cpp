// kafka_cluster TOPIC: Kafka brokers for a script. Prints the brokers' addresses, and then obeys,
// one order a line: "stop" and "start" (answered "done"), and "read COUNT", which waits for so many
// records and prints all that there are, "KEY<tab>ID" each, and an empty line.

#include "support/KafkaCluster.h"

#include <iostream>
#include <sstream>

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: kafka_cluster TOPIC\n";
        return 2;
    }
    TestSupport::KafkaCluster cluster(argv[1]);
    std::cout << cluster.Brokers() << std::endl;
    for (std::string line; std::getline(std::cin, line);) {
        std::istringstream words(line);
        std::string order;
        std::size_t count = 0;
        words >> order >> count;
        if (order == "stop") {
            cluster.Stop();
            std::cout << "done" << std::endl;
        } else if (order == "start") {
            cluster.Start();
            std::cout << "done" << std::endl;
        } else if (order == "read") {
            for (const auto& record : cluster.Read(count)) {
                std::cout << record.m_key << '\t' << record.m_id << '\n';
            }
            std::cout << std::endl;
        } else {
            std::cout << "expected stop, start or read COUNT, found " << line << std::endl;
        }
    }
    return 0;
}
