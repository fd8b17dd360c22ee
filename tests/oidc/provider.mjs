// The OpenID provider of every test that needs one, on loopback only.
//
//   node provider.mjs [port] [issuer] [variation]      (port 0 or none: a free one)
//
// Without an issuer it stands alone: the issuer is http://127.0.0.1:<port>/identity, and beside
// it GET /Import/Connect plays the repository service (200 for a bearer access token this
// provider issued for the import resource, else 401); the identity-login tests use it so. With an
// issuer, that is the service's /identity, which passes requests on to here: it serves below the
// issuer's path, and the addresses it builds follow X-Forwarded-Host, so they name the service;
// lxrepo-server's bearer-mode tests and the end-to-end imports use it so.
//
// Clients: "lxdesktop", the library's native login (authorization code with PKCE, access tokens
// for the import resource); "lxrepo-proxy", the authentication proxy with tokens of its own
// (client credentials); "lxrepo-service", which may introspect both kinds.
//
// Whoever comes to the login is alice and consents, unless the cookie "test_decision" is "deny",
// which refuses the login. Like some providers, it refuses a token request whose Content-Type is
// not exactly application/x-www-form-urlencoded.
//
// The variation, JSON, makes it another provider: "auth" is the one client authentication it
// offers and its clients use (else client_secret_basic among the usual ones); "discovery" sets
// members of its document, "token" of its token answers, and "idToken" claims of the ID tokens
// it issues ("exp": seconds from now); null removes a member.
// Prints "listening <port>" on stdout once it serves.
import http from 'node:http';
import Provider from 'oidc-provider';

const IMPORT_RESOURCE = 'urn:tablerepository:import';
const USER = 'alice';
const DENIED_TEXT = 'alice declined to let the desktop import tables';

const requestedPort = Number(process.argv[2] ?? 0);
const givenIssuer = process.argv[3] || undefined;
const variation = JSON.parse(process.argv[4] || '{}');
const MOUNT = givenIssuer ? new URL(givenIssuer).pathname.replace(/\/$/, '') : '/identity';
let provider; // set once the issuer is known, which alone may need the port

function configuration() {
  return {
    clients: [
      {
        client_id: 'lxdesktop',
        client_secret: '5d0c1e7a9b3f4a6c8e2d7f1b0a9c4e36',
        application_type: 'native',
        // A native client may use any port on the loopback address (RFC 8252 7.3).
        redirect_uris: ['http://127.0.0.1/callback'],
        grant_types: ['authorization_code'],
        response_types: ['code'],
      },
      {
        client_id: 'lxrepo-proxy',
        client_secret: 'proxy-secret-for-tokens',
        grant_types: ['client_credentials'],
        response_types: [],
        redirect_uris: [],
      },
      {
        client_id: 'lxrepo-service',
        client_secret: 'service-secret-for-introspection',
        grant_types: [],
        response_types: [],
        redirect_uris: [],
      },
    ].map((client) => ({ ...client, token_endpoint_auth_method: variation.auth })),
    ...(variation.auth && { clientAuthMethods: [variation.auth] }),
    pkce: { required: () => true },
    features: {
      devInteractions: { enabled: false },
      clientCredentials: { enabled: true },
      introspection: { enabled: true },
      resourceIndicators: {
        enabled: true,
        defaultResource: () => IMPORT_RESOURCE,
        useGrantedResource: () => true,
        getResourceServerInfo: (ctx, resource) => {
          if (resource !== IMPORT_RESOURCE) throw new Provider.errors.InvalidTarget();
          return { scope: 'import', audience: IMPORT_RESOURCE, accessTokenFormat: 'opaque' };
        },
      },
    },
    interactions: { url: (ctx, i) => `${MOUNT}/interaction/${i.uid}` },
    findAccount: (ctx, sub) => (sub === USER ? { accountId: sub, claims: () => ({ sub }) } : undefined),
    cookies: { keys: ['tri-test-cookie-key'] },
    ttl: {
      AccessToken: 600, AuthorizationCode: 60, ClientCredentials: 600, Grant: 600, IdToken: 600,
      Interaction: 600, Session: 600,
    },
  };
}

function send(res, status, body, type = 'text/plain; charset=utf-8') {
  res.writeHead(status, { 'Content-Type': type, 'Content-Length': Buffer.byteLength(body) });
  res.end(body);
}

async function allow(req, res) {
  const details = await provider.interactionDetails(req, res);
  const { params, prompt } = details;
  const accountId = details.session?.accountId ?? USER;
  const grant = details.grantId
    ? await provider.Grant.find(details.grantId)
    : new provider.Grant({ accountId, clientId: params.client_id });
  grant.addOIDCScope(params.scope);
  grant.addResourceScope(IMPORT_RESOURCE, 'import');
  const result = { consent: { grantId: await grant.save() } };
  if (prompt.name === 'login') result.login = { accountId };
  await provider.interactionFinished(req, res, result, { mergeWithLastSubmission: false });
}

async function deny(req, res) {
  await provider.interactionFinished(
    req, res, { error: 'access_denied', error_description: DENIED_TEXT },
    { mergeWithLastSubmission: false });
}

async function importConnect(req, res) {
  const match = /^Bearer (.+)$/.exec(req.headers.authorization ?? '');
  const token = match ? await provider.AccessToken.find(match[1]) : undefined;
  const valid = token && !token.isExpired && token.aud === IMPORT_RESOURCE;
  send(res, valid ? 200 : 401, valid ? `connected as ${token.accountId}` : 'not authorized');
}

function vary(object, changes) {
  for (const [name, value] of Object.entries(changes ?? {})) {
    if (value === null) delete object[name];
    else object[name] = name === 'exp' ? Math.floor(Date.now() / 1000) + value : value;
  }
}

// The ID token keeps its header and signature: the login does not check the signature of a token
// it fetched itself, so a changed claim is the fault it has to see.
async function varyAnswers(ctx, next) {
  await next();
  if (ctx.path === '/.well-known/openid-configuration') vary(ctx.body, variation.discovery);
  if (ctx.path === '/token') vary(ctx.body, variation.token);
  if (ctx.path === '/token' && ctx.body?.id_token && variation.idToken) {
    const parts = ctx.body.id_token.split('.');
    const claims = JSON.parse(Buffer.from(parts[1], 'base64url'));
    vary(claims, variation.idToken);
    parts[1] = Buffer.from(JSON.stringify(claims)).toString('base64url');
    ctx.body.id_token = parts.join('.');
  }
}

async function route(req, res) {
  const url = new URL(req.url, 'http://127.0.0.1');
  if (url.pathname === `${MOUNT}/token` &&
      req.headers['content-type'] !== 'application/x-www-form-urlencoded') {
    return send(res, 400, '{"error":"invalid_request"}', 'application/json');
  }
  if (!givenIssuer && url.pathname === '/Import/Connect' && req.method === 'GET') {
    return importConnect(req, res);
  }
  if (url.pathname.startsWith(`${MOUNT}/interaction/`)) {
    const denied = /(^|;)\s*test_decision=deny\s*(;|$)/.test(req.headers.cookie ?? '');
    return denied ? deny(req, res) : allow(req, res);
  }
  if (url.pathname === MOUNT || url.pathname.startsWith(`${MOUNT}/`)) {
    // The provider routes below its issuer's path and learns the mount from originalUrl.
    req.originalUrl = req.url;
    req.url = req.url.slice(MOUNT.length) || '/';
    return provider.callback()(req, res);
  }
  return send(res, 404, 'not found');
}

const server = http.createServer((req, res) => {
  route(req, res).catch((err) => {
    console.error(err);
    if (!res.headersSent) send(res, 500, String(err?.message ?? err));
  });
});

server.listen(requestedPort, '127.0.0.1', () => {
  const { port } = server.address();
  provider = new Provider(givenIssuer ?? `http://127.0.0.1:${port}${MOUNT}`, configuration());
  provider.proxy = Boolean(givenIssuer);
  provider.use(varyAnswers);
  process.stdout.write(`listening ${port}\n`);
});

// The test harness stops the provider with SIGTERM; exit at once and quietly.
process.on('SIGTERM', () => process.exit(0));
