/* A service program that does nothing: it reports running when started and
   stopped when told to stop. The VMware Tools state tests install it under
   the tools' service name. */
#include <windows.h>

static SERVICE_STATUS_HANDLE g_handle;
static HANDLE g_stop;

static void Report(DWORD state) {
    SERVICE_STATUS s = {0};
    s.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    s.dwCurrentState = state;
    s.dwControlsAccepted = state == SERVICE_RUNNING ? SERVICE_ACCEPT_STOP : 0;
    SetServiceStatus(g_handle, &s);
}

static DWORD WINAPI Handler(DWORD control, DWORD type, LPVOID data, LPVOID context) {
    (void)type;
    (void)data;
    (void)context;
    if (control == SERVICE_CONTROL_STOP) {
        Report(SERVICE_STOP_PENDING);
        SetEvent(g_stop);
    }
    return NO_ERROR;
}

static void WINAPI ServiceMain(DWORD argc, LPWSTR* argv) {
    (void)argc;
    g_handle = RegisterServiceCtrlHandlerExW(argv[0], Handler, NULL);
    if (!g_handle) return;
    g_stop = CreateEventW(NULL, TRUE, FALSE, NULL);
    Report(SERVICE_RUNNING);
    /* Never lingers: ends on its own after ten minutes. */
    WaitForSingleObject(g_stop, 600000);
    Report(SERVICE_STOPPED);
}

int wmain(void) {
    SERVICE_TABLE_ENTRYW table[] = {{L"VMTools", ServiceMain}, {NULL, NULL}};
    return StartServiceCtrlDispatcherW(table) ? 0 : 1;
}
