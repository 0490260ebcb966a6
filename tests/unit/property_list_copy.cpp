// Reads the property lists named on standard input and writes each that is one as XML to NAME.copy, so that another
// implementation can say what became of it.
#include <fstream>
#include <iostream>
#include <sstream>

#include "plist/xml_property_list.h"

int main() {
    for (std::string name; std::getline(std::cin, name);) {
        std::ostringstream bytes;
        bytes << std::ifstream(name, std::ios::binary).rdbuf();
        if (const auto root = tarnwick::parsePropertyList(bytes.str()))
            std::ofstream(name + ".copy", std::ios::binary) << tarnwick::writeXmlPropertyList(*root);
    }
}
