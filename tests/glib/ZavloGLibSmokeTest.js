// ZavloAuthClient from GJS: a chain against the local operator answers its token, and a
// chain without a session fails with the domain's code. Exits 1 on the first fault.
imports.gi.versions.ZavloAuth = '0';
const {GLib, Gio, ZavloAuth} = imports.gi;

function fail(message) {
    printerr(`FAIL: ${message}`);
    imports.system.exit(1);
}

const operator = Gio.Subprocess.new([GLib.getenv('ZAVLO_TEST_OPERATOR'), '2'],
    Gio.SubprocessFlags.STDIN_PIPE | Gio.SubprocessFlags.STDOUT_PIPE);
const [url] = new Gio.DataInputStream({base_stream: operator.get_stdout_pipe()}).read_line_utf8(null);

const client = ZavloAuth.Client.new(JSON.stringify({
    cellularInterfaces: ['lo'],
    telemetryEndpoint: 'http://127.0.0.1:9/events',
}));

// One call, waited for on the default main context (with a guard against a hang).
function startAuth(target, config) {
    const loop = new GLib.MainLoop(null, false);
    let outcome = null;
    client.start_auth(target, config, null, (source, result) => {
        try {
            outcome = {answer: JSON.parse(source.start_auth_finish(result))};
        } catch (error) {
            outcome = {error};
        }
        loop.quit();
    });
    const guard = GLib.timeout_add_seconds(GLib.PRIORITY_DEFAULT, 60, () => {
        loop.quit();
        return GLib.SOURCE_REMOVE;
    });
    loop.run();
    GLib.source_remove(guard);
    return outcome ?? fail('no answer before the guard');
}

const cases = [
    {name: 'a chain before any session', url, config: null, code: ZavloAuth.Error.SESSION_NOT_INITIALIZED},
    {name: 'a chain in a session', url, config: '{}', token: 'zavlo-chain-token'},
];
for (const row of cases) {
    const {answer, error} = startAuth(row.url, row.config);
    if (row.token !== undefined && answer?.snaToken !== row.token)
        fail(`${row.name}: ${error ?? JSON.stringify(answer)}`);
    if (row.code !== undefined && !(error instanceof GLib.Error && error.matches(ZavloAuth.error_quark(), row.code)))
        fail(`${row.name}: expected code ${row.code}, got ${error ?? JSON.stringify(answer)}`);
    print(`ok: ${row.name}`);
}
operator.get_stdin_pipe().close(null);
operator.wait(null);
