// CZOR: construction, destruction, open and close, and the host-side
// settings restored at open and saved at close.
#include "device/zor.h"

#include "ble_transport/ble_manager.h"
#include "device/thermistor.h"
#include "support/log.h"

namespace {
constexpr char kLogModule[] = "ZOR";
constexpr size_t kIoBufferBytes = 128;
constexpr size_t kPathBytes = 256;
} // namespace

CZOR::CZOR()
{
    hid_init();
    InitLogger();
    pszInBuf = new unsigned char[kIoBufferBytes]();
    pszOutBuf = new unsigned char[kIoBufferBytes]();
    m_szPath = new char[kPathBytes]();
    ZOR_LOG("CZOR pszInBuf is %p", static_cast<void *>(pszInBuf));
    // The temperature bounds come from the table, both starting at -20.
    m_iTempMin = -20;
    m_iTempMax = -20;
    for (const ThermistorRow &row : kThermistorTable) {
        if (row.tempC < m_iTempMin)
            m_iTempMin = row.tempC;
        if (row.tempC > m_iTempMax)
            m_iTempMax = row.tempC;
    }
}

CZOR::~CZOR()
{
    m_pBleManager.reset();
    // A handle still open here (the owner skipped close) is released without
    // talking to the device.
    if (m_hDev)
        hid_close(m_hDev);
    delete[] pszInBuf;
    delete[] pszOutBuf;
    delete[] m_szPath;
    delete[] m_pszKeyPath;
}
