// The setup pages: plain HTML forms, no scripts, nothing read from disk. A
// form is taken only from a page of this server: a browser names the page
// that posts (Origin, or Referer), and a post from any other origin, or
// from none, is refused, so a web page elsewhere cannot change a focuser.
#include "alpaca_server.h"

#include <sstream>

namespace zoralpaca {
namespace {

using zorservice::Link;

std::string escaped(const std::string &text)
{
    std::string out;
    for (char c : text) {
        switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += "&quot;";
            break;
        case '\'':
            out += "&#39;";
            break;
        default:
            out += c;
        }
    }
    return out;
}

std::string page(const std::string &title, const std::string &body)
{
    return "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\"><title>" + escaped(title) +
           "</title>\n<style>body{font-family:sans-serif;max-width:42em;margin:1em auto}"
           "label{display:block;margin:.4em 0}table{border-collapse:collapse}td,th{padding:.2em .6em;"
           "text-align:left}.problem{color:#a00}</style></head>\n<body><h1>" +
           escaped(title) + "</h1>\n" + body + "</body></html>\n";
}

void html(httplib::Response &response, int status, const std::string &title, const std::string &body)
{
    response.status = status;
    response.set_header("Content-Security-Policy",
                        "default-src 'none'; style-src 'unsafe-inline'; form-action 'self'");
    response.set_header("X-Frame-Options", "DENY");
    response.set_content(page(title, body), "text/html; charset=utf-8");
}

// "http://host:port" of the page that posted, from Origin or else Referer.
std::string postingOrigin(const httplib::Request &request)
{
    if (request.has_header("Origin"))
        return request.get_header_value("Origin");
    const std::string referer = request.get_header_value("Referer");
    const std::size_t scheme = referer.find("://");
    if (scheme == std::string::npos)
        return "";
    return referer.substr(0, referer.find('/', scheme + 3));
}

bool sameOrigin(const httplib::Request &request)
{
    const std::string host = request.get_header_value("Host");
    return !host.empty() && postingOrigin(request) == "http://" + host;
}

const char *linkText(Link link)
{
    switch (link) {
    case Link::Connected:
        return "connected";
    case Link::Connecting:
        return "connecting";
    case Link::Lost:
        return "link lost, reconnecting";
    default:
        return "not connected";
    }
}

std::string checkbox(const char *name, const char *label, bool on)
{
    return std::string("<label><input type=\"checkbox\" name=\"") + name + "\" value=\"on\"" +
           (on ? " checked" : "") + "> " + label + "</label>\n";
}

std::string number(const char *name, const char *label, const std::string &value, const char *limits)
{
    return std::string("<label>") + label + " <input name=\"" + name + "\" value=\"" + escaped(value) +
           "\" " + limits + "></label>\n";
}

std::string text(const char *name, const char *label, const std::string &value, const char *hint)
{
    return std::string("<label>") + label + " <input name=\"" + name + "\" value=\"" + escaped(value) +
           "\" maxlength=\"11\" placeholder=\"" + hint + "\"></label>\n";
}

// The name a Bluetooth focuser is served under, from its key ("ble:<name>").
std::string servedBluetoothName(const std::string &key)
{
    return zorservice::transportOf(key) == zorservice::Transport::Bluetooth ? key.substr(4) : "";
}

std::string formatted(double value)
{
    std::ostringstream out;
    out << value;
    return out.str();
}

std::optional<double> parseDouble(const std::string &text)
{
    if (text.empty() || text.size() > 24)
        return std::nullopt;
    char *end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (*end != '\0' || value != value)
        return std::nullopt;
    return value;
}

} // namespace

void AlpacaServer::serverSetupPage(const httplib::Request &request, httplib::Response &response)
{
    std::string body = "<p>zor_alpaca " + escaped(m_info.version) + ", Alpaca port " +
                       std::to_string(m_info.port) + ". Configuration: " + escaped(m_config.path()) +
                       "</p>\n";
    if (request.has_param("added"))
        body += "<p>Added: the focuser is served as the last device below.</p>\n";
    body += "<table><tr><th>Device</th><th>Focuser</th><th>Link</th><th>UniqueID</th></tr>\n";
    const auto devices = m_devices.all();
    for (std::size_t n = 0; n < devices.size(); ++n) {
        const auto s = devices[n]->focuser().snapshot();
        body += "<tr><td><a href=\"/setup/v1/focuser/" + std::to_string(n) + "/setup\">focuser/" +
                std::to_string(n) + "</a></td><td>" + escaped(devices[n]->name()) + "</td><td>" +
                linkText(s.link) + "</td><td>" + escaped(devices[n]->uniqueId()) + "</td></tr>\n";
    }
    body += "</table>\n<p>USB focusers are served as they are found when the server starts.</p>\n"
            "<h2>Serve a Bluetooth focuser</h2>\n<form method=\"post\" action=\"/setup\">\n"
            "<label>Bluetooth name <input name=\"ble\" maxlength=\"11\" required></label>\n"
            "<button type=\"submit\">Add</button></form>\n";
    html(response, 200, "ZOR Alpaca focuser server", body);
}

void AlpacaServer::saveServerSetup(const httplib::Request &request, httplib::Response &response)
{
    if (!sameOrigin(request))
        return html(response, 403, "Refused",
                    "<p>This form is taken only from this server's own setup page.</p>");
    const std::string name = request.get_param_value("ble");
    if (name.empty() || name.size() > 11)
        return html(response, 400, "Not added", "<p>A Bluetooth name has 1 to 11 characters.</p>");
    if (m_config.addBluetoothName(name))
        m_config.save();
    m_addBluetooth(name);
    response.set_redirect("/setup?added=1", 303);
}

void AlpacaServer::focuserSetupPage(const httplib::Request &request, httplib::Response &response)
{
    const std::size_t n = std::stoul(request.matches[1]);
    const auto device = m_devices.at(n);
    if (!device)
        return html(response, 403, "No such focuser",
                    "<p>There is no focuser " + std::to_string(n) +
                        ". <a href=\"/setup\">All focusers</a></p>");
    const auto s = device->focuser().snapshot();
    const std::string action = "/setup/v1/focuser/" + std::to_string(n) + "/setup";
    std::string body = "<p><a href=\"/setup\">All focusers</a> &middot; " + escaped(device->name()) +
                       " &middot; " + linkText(s.link) + "</p>\n";
    if (request.has_param("saved"))
        body += "<p>Sent to the focuser.</p>\n";
    if (!s.lastErrorText.empty())
        body += "<p class=\"problem\">" + escaped(s.lastErrorText) + "</p>\n";
    body += "<form method=\"post\" action=\"" + action + "\">\n";
    if (s.link == Link::Connected) {
        body += "<h2>Focuser</h2>\n" +
                number("backlash", "Backlash (steps)", std::to_string(s.backlash),
                       "type=\"number\" min=\"0\" max=\"255\"") +
                number("maxstep", "Maximum step", std::to_string(s.maxStep),
                       ("type=\"number\" min=\"1\" max=\"" + std::to_string(s.stepRange) + "\"").c_str()) +
                checkbox("reverse", "Reverse direction", s.reverse);
        if (s.beep)
            body += checkbox("beep", "Beep", *s.beep);
        if (s.led)
            body += checkbox("led", "LED", *s.led);
        body += text("blename", "Bluetooth name", servedBluetoothName(device->key()), "unchanged");
        if (!servedBluetoothName(device->key()).empty())
            body +=
                "<p>The focuser takes a new name at once; zor_alpaca serves it under that name from its next "
                "start (if it was named with --ble, change that too).</p>\n";
    } else {
        body += "<p>Connect the focuser (from a client) to change the settings it keeps.</p>\n";
    }
    body += "<h2>Temperature compensation</h2>\n";
    if (s.compensationReference)
        body += "<p>Focus was set at " + formatted(*s.compensationReference) + " &deg;C.</p>\n";
    body += checkbox("tempcomp", "On (TempComp)", s.compensation.enabled) +
            number("stepsperdegree", "Steps per &deg;C", formatted(s.compensation.stepsPerDegree),
                   "type=\"number\" step=\"any\"") +
            number("threshold", "Threshold (&deg;C)", formatted(s.compensation.threshold),
                   "type=\"number\" step=\"any\" min=\"0.01\"") +
            "<input type=\"hidden\" name=\"form\" value=\"" +
            std::string(s.link == Link::Connected ? "all" : "compensation") +
            "\">\n<p><button type=\"submit\">Save</button></p></form>\n";
    html(response, 200, "Focuser " + std::to_string(n) + " setup", body);
}

// Every value is checked before any is sent, so a bad form changes nothing.
void AlpacaServer::saveFocuserSetup(const httplib::Request &request, httplib::Response &response)
{
    if (!sameOrigin(request))
        return html(response, 403, "Refused",
                    "<p>This form is taken only from this server's own setup page.</p>");
    const std::size_t n = std::stoul(request.matches[1]);
    const auto device = m_devices.at(n);
    if (!device)
        return html(response, 403, "No such focuser",
                    "<p>There is no focuser " + std::to_string(n) + ".</p>");
    const auto field = [&](const char *name) { return request.get_param_value(name); };
    const auto on = [&](const char *name) { return request.has_param(name); };
    const bool focuserFields = field("form") == "all";

    zorservice::CompensationSettings compensation = device->focuser().snapshot().compensation;
    compensation.enabled = on("tempcomp");
    const auto perDegree = parseDouble(field("stepsperdegree"));
    const auto threshold = parseDouble(field("threshold"));
    std::optional<int> backlash, maxStep;
    const std::string bluetoothName = field("blename");
    const std::string servedName = servedBluetoothName(device->key());
    if (focuserFields) {
        backlash = parseInt32(field("backlash"));
        maxStep = parseInt32(field("maxstep"));
    }
    std::string problem;
    if (!perDegree || *perDegree < -100000 || *perDegree > 100000)
        problem = "Steps per degree must be a number of -100000 .. 100000.";
    else if (!threshold || *threshold <= 0 || *threshold > 100)
        problem = "The threshold must be a number of degrees above 0 and up to 100.";
    else if (focuserFields && (!backlash || *backlash < 0 || *backlash > 255))
        problem = "The backlash must be a whole number of 0 .. 255.";
    else if (focuserFields && (!maxStep || *maxStep < 1))
        problem = "The maximum step must be a whole number of 1 or more.";
    else if (bluetoothName.size() > 11)
        problem = "A Bluetooth name has 11 characters at most.";
    if (!problem.empty())
        return html(response, 400, "Not saved",
                    "<p class=\"problem\">" + escaped(problem) +
                        " Nothing was changed.</p><p><a href=\"/setup/v1/focuser/" + std::to_string(n) +
                        "/setup\">Back</a></p>");

    compensation.stepsPerDegree = *perDegree;
    compensation.threshold = *threshold;
    device->setCompensation(compensation);
    m_config.setCompensation(device->key(), compensation);
    m_config.save();
    if (focuserFields) {
        // Only what changed is sent; the worker reports a refusal (a maximum
        // below the position, a focuser moving) on this page.
        const auto s = device->focuser().snapshot();
        auto &focuser = device->focuser();
        if (*backlash != s.backlash)
            focuser.setBacklash(*backlash);
        if (*maxStep != s.maxStep)
            focuser.setMaxStep(*maxStep);
        if (on("reverse") != s.reverse)
            focuser.setReverse(on("reverse"));
        if (s.beep && on("beep") != *s.beep)
            focuser.setBeep(on("beep"));
        if (s.led && on("led") != *s.led)
            focuser.setLed(on("led"));
        if (!bluetoothName.empty() && bluetoothName != servedName) {
            focuser.setBluetoothName(bluetoothName);
            if (!servedName.empty() && m_config.renameBluetooth(servedName, bluetoothName))
                m_config.save();
        }
    }
    response.set_redirect("/setup/v1/focuser/" + std::to_string(n) + "/setup?saved=1", 303);
}

} // namespace zoralpaca
