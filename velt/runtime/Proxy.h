// Proxy: the one object of a proxy process. It reads the command line, detaches or not, reads every standard setting
// into plain fields, opens the ports and gives the process to a ProxyMonitor.
// A host subclasses it if it needs a ProxyInit of its own, makes one instance with new, and calls ProxyStart.
// Owner: the host until Shutdown, which deletes it. Threads: all of start-up runs on one thread before any other thread
// or process exists; after that the fields are read from every thread and written by none.
// Units: as the names of the fields say. Failure: start-up ends with -1 only on account of the command line, the
// scanning framework, rules of identities that cannot be used, or ProxyInit; all else is reported and goes on.
#pragma once

#include <netinet/in.h>

#include <string>
#include <vector>

#include <velt/Config.h>
#include <velt/Export.h>
#include <velt/lookup/NetPolicy.h>

namespace VELT {

class Connection;
class ProxyMonitor;
class ServiceLoop;

class VELT_API Proxy {
public:
    Proxy();

    virtual int ProxyInit();  // after the ports are open, before privileges are dropped; non-zero ends start-up
    virtual int ProcessArgs(int argc, char** argv);  // 0 to go on
    virtual void Shutdown();                         // deletes this object
    virtual ~Proxy();
    virtual int ProxyMain();
    virtual int Start(int argc, char** argv);
    virtual int StartAsService();

    Proxy(Proxy const&) = delete;
    Proxy& operator=(Proxy const&) = delete;

    // Usable from anywhere once the instance exists. Without one the machine has no name, and is given none.
    static std::vector<sockaddr_in*> GetSvcBindings();  // the elements stay the proxy's
    static void AddSvcBinding(unsigned short port);     // this port on every configured address
    static std::vector<std::string>& GetInterfaces();
    static void SetHostInformation(std::string& shortName, std::string& fullName);
    static std::string GetProxyHostName(bool full);
    static bool IsLoopbackConnection(sockaddr_in const& address);
    static bool FindConnectionDirection(bool& outside, Connection* session);  // false: on neither list
    static void DisableLogging();
    static long MapUID(char const* name);  // -1: none such
    static long MapGID(char const* name);
    static void CheckStackSize();
    static std::string ConfigFileName(std::string name);

    void SetProxyName(char const* name);
    void AddSvcBinding(sockaddr_in& address);                       // unchecked
    void AddSvcBinding(unsigned int address, unsigned short port);  // network order, host order; drops duplicates
    int CheckDupSvcBinding(unsigned long address, short port);      // 0 new; 1 covers an old one; 2 covered by one
    void LoadSvcBindings();
    void GetStandardConfig();
    void InitialiseLogging();
    void SetUidAndGid();

    static Proxy* s_pProxyInstance;

    NetPolicy m_insidePolicy;
    NetPolicy m_outsidePolicy;
    std::string m_commandLine;  // every argument followed by one blank
    std::string m_scanDir;
    std::string m_proxyName;
    std::string m_logName;  // the log identity in place of the proxy name, when not empty
    bool m_loggingOn;
    std::string m_hostName;
    std::string m_fullHostName;
    std::string m_productName;
    std::string m_productConfigFile;
    unsigned m_timeoutSeconds, m_timeoutMs;
    unsigned m_connectTimeoutSeconds, m_connectTimeoutMs;
    int m_idleTimeout;
    unsigned m_threadLimit;
    unsigned m_refreshRate;       // connections; 0: never
    unsigned m_handlerStackSize;  // bytes; 0: the system's default
    int m_proxyIdleTimeout;       // seconds
    unsigned m_queueRatio;
    bool m_clockInConnectionChild;
    bool m_forkedModel;
    bool m_antiSpamSdk;
    unsigned m_maxConnections;
    unsigned m_acceptCount;
    unsigned m_maxQueuedConnections;
    unsigned m_permThreads;
    std::vector<sockaddr_in*> m_interfaceAddresses;
    bool m_loopbackAllowed;  // set by a host: 127.0.0.1 does not count as a loop
    ProxyMonitor* m_monitor;
    ServiceLoop* m_serviceLoop;
    Config m_config;
    std::vector<sockaddr_in*> m_svcBindings;
    bool m_monitorHealth;
    bool m_runAsService;
    bool m_debugForeground;
    bool m_singleProcess;
    int m_argc;  // what stands after the proxy and product names; negative when even those are missing
    char** m_argv;
    char const* m_serviceType;
    char const* m_retryerArgument;
    std::vector<std::string> m_interfaceNames;  // dotted, without 127.0.0.1
    bool m_forkedModelThreads;
    bool m_restarted;  // the supervisor has started this service before

private:
    struct StreamSettings;

    void ReadInterfaces();
    void TakeOption(int option);
    void TakePositionals(int argc, char** argv);
    int Supervise();
    void OpenLog();
    void OpenEarlyLog();
    bool LoadFramework();
    bool LoadIdentities();
    void ReadNetworkSettings(StreamSettings& streams);
    void ReadProcessSettings(StreamSettings& streams);
    void SetUpStreams(StreamSettings const& streams);
    void CreateServiceLoop();
    void ChangeGroup();
    void ChangeUser();
};

VELT_API int ProxyStart(int argc, char** argv);  // from main; only -1 ever comes back
VELT_API void ProxyStop();

}  // namespace VELT
