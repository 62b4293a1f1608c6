#include "InventoryXMLGenerator.h"

#include <gtest/gtest.h>

TEST(InventoryXMLGeneratorTest, FreshDocumentHasEveryElementEmpty) {
    InventoryXMLGenerator g;
    EXPECT_EQ(g.toString(), "<?xml version=\"1.0\"?>\n"
                            "<ModulesDelivery version=\"1.1a\">\n"
                            "\t<Module>\n"
                            "\t\t<Type></Type>\n"
                            "\t\t<Model></Model>\n"
                            "\t\t<Manufacturer></Manufacturer>\n"
                            "\t\t<SerialNumber></SerialNumber>\n"
                            "\t\t<SoftwareVersion></SoftwareVersion>\n"
                            "\t\t<HardwareVersion></HardwareVersion>\n"
                            "\t\t<MACAddress></MACAddress>\n"
                            "\t\t<Status></Status>\n"
                            "\t</Module>\n"
                            "</ModulesDelivery>\n");
}

TEST(InventoryXMLGeneratorTest, SettersFillTheirElements) {
    InventoryXMLGenerator g;
    g.setModuleType("Gateway");
    g.setModel("TV-100");
    g.setManufacturer("Smith & Sons <GmbH>");
    g.setSerialNumber("SN0001");
    g.setSoftwareVersion("1.2.3");
    g.setHardwareVersion("B");
    g.setMacAddress("02:00:5e:10:00:01");
    g.setStatus(1);
    EXPECT_EQ(g.toString(), "<?xml version=\"1.0\"?>\n"
                            "<ModulesDelivery version=\"1.1a\">\n"
                            "\t<Module>\n"
                            "\t\t<Type>Gateway</Type>\n"
                            "\t\t<Model>TV-100</Model>\n"
                            "\t\t<Manufacturer>Smith &amp; Sons &lt;GmbH&gt;</Manufacturer>\n"
                            "\t\t<SerialNumber>SN0001</SerialNumber>\n"
                            "\t\t<SoftwareVersion>1.2.3</SoftwareVersion>\n"
                            "\t\t<HardwareVersion>B</HardwareVersion>\n"
                            "\t\t<MACAddress>02:00:5e:10:00:01</MACAddress>\n"
                            "\t\t<Status>1</Status>\n"
                            "\t</Module>\n"
                            "</ModulesDelivery>\n");
}

TEST(InventoryXMLGeneratorTest, StatusIsDecimal) {
    InventoryXMLGenerator g;
    for (int status : {-12, -2147483647 - 1}) {
        g.setStatus(status);
        EXPECT_NE(g.toString().find("\t\t<Status>" + std::to_string(status) + "</Status>\n"),
                  std::string::npos)
            << status;
    }
}
