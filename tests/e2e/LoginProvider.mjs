// The OpenID provider behind a bearer-mode lxrepo-server in the end-to-end import tests, on
// loopback only.
//
//   node LoginProvider.mjs <port> <issuer> <oidc-provider entry file>
//
// The issuer is the service's /identity, which passes requests on to here: the library finds
// its identity server there, and the user's browser and the token redemption go through the
// service too. Three clients: "lxdesktop", the library's native login (authorization code with
// PKCE, access tokens for the import resource); "lxrepo-proxy", the authentication proxy with
// tokens of its own (client credentials); "lxrepo-service", which may introspect both kinds.
// A browser that sends the cookie test_decision=allow skips the login page: alice is logged in
// and consents at once. Prints "listening <port>" once it serves.
import http from 'node:http';
import { pathToFileURL } from 'node:url';

const [portArgument, issuer, providerEntry] = process.argv.slice(2);
const { default: Provider } = await import(pathToFileURL(providerEntry).href);
const mount = new URL(issuer).pathname.replace(/\/$/, '');
const IMPORT_RESOURCE = 'urn:tablerepository:import';
const USER = 'alice';

const provider = new Provider(issuer, {
  clients: [
    {
      client_id: 'lxdesktop',
      client_secret: '5d0c1e7a9b3f4a6c8e2d7f1b0a9c4e36',
      application_type: 'native',
      // A native client may use any port on the loopback address (RFC 8252 7.3).
      redirect_uris: ['http://127.0.0.1/callback'],
      grant_types: ['authorization_code'],
      response_types: ['code'],
      token_endpoint_auth_method: 'client_secret_post',
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
  ],
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
  interactions: { url: (ctx, interaction) => `${mount}/interaction/${interaction.uid}` },
  findAccount: (ctx, sub) => (sub === USER ? { accountId: sub, claims: () => ({ sub }) } : undefined),
  cookies: { keys: ['tri-e2e-cookie-key'] },
  ttl: {
    AccessToken: 600, AuthorizationCode: 60, ClientCredentials: 600, Grant: 600, IdToken: 600,
    Interaction: 600, Session: 600,
  },
});
// Addresses the provider builds follow X-Forwarded-Host, so they name the service.
provider.proxy = true;

function cookieValue(req, name) {
  for (const part of (req.headers.cookie ?? '').split(';')) {
    const [key, ...rest] = part.trim().split('=');
    if (key === name) return decodeURIComponent(rest.join('='));
  }
  return undefined;
}

async function interaction(req, res) {
  if (cookieValue(req, 'test_decision') !== 'allow') {
    res.writeHead(400, { 'Content-Type': 'text/plain' }).end('no test_decision cookie');
    return;
  }
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

const server = http.createServer((req, res) => {
  const path = new URL(req.url, 'http://127.0.0.1').pathname;
  if (path !== mount && !path.startsWith(`${mount}/`)) {
    res.writeHead(404).end();
    return;
  }
  if (path.startsWith(`${mount}/interaction/`)) {
    interaction(req, res).catch((err) => {
      console.error(err);
      if (!res.headersSent) res.writeHead(500).end(String(err?.message ?? err));
    });
    return;
  }
  // The provider routes below its issuer's path and learns the mount from originalUrl.
  req.originalUrl = req.url;
  req.url = req.url.slice(mount.length) || '/';
  provider.callback()(req, res);
});

server.listen(Number(portArgument), '127.0.0.1', () => {
  process.stdout.write(`listening ${server.address().port}\n`);
});

process.on('SIGTERM', () => process.exit(0));
