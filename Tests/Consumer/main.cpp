// Logs one line through a file handler of an installed Tovik, then prints
// the file. Usage: tovik-consumer <log file>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>

#include "Tovik/Logger/Handlers/FileLogHandler.h"
#include "Tovik/Logger/Logger.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: tovik-consumer <log file>\n";
        return 2;
    }
    {
        auto handler = std::make_shared<Tovik::FileLogHandler>("com.velmora.consumer", argv[1], true);
        Tovik::Logger::shared().setHandlers({handler});
        TLOG_INFO("main", "Hello from a program built on Tovik");
        Tovik::Logger::shared().setHandlers({});
    }
    std::ifstream file(argv[1]);
    std::stringstream text;
    text << file.rdbuf();
    std::cout << text.str();
    return text.str().empty() ? 1 : 0;
}
