-- kzqsrvr: servers known to this instance. One row per entry of sys.servers: the local
-- server (id 0) and every linked or remote server (TOP (@max_rows) by id).
-- Reads: sys.servers.
-- Needs: VIEW ANY DEFINITION (without it only the local server is visible).
-- RSRVSTATUS: 'local' for this server, else the options that are on, comma-separated:
-- rpc (calls in), rpcout (calls out), dac (data access). RSRVCONNLV: 0 local,
-- 1 linked server, 2 remote server kept for calls only.
SELECT TOP (@max_rows)
    CAST(SERVERPROPERTY('MachineName') AS nvarchar(64)) AS HOSTNAME,
    CAST(server_id AS nvarchar(12)) AS RSRVID,
    CASE WHEN server_id = 0 THEN N'local'
         ELSE STUFF(CASE WHEN is_remote_login_enabled = 1 THEN N',rpc' ELSE N'' END
                    + CASE WHEN is_rpc_out_enabled = 1 THEN N',rpcout' ELSE N'' END
                    + CASE WHEN is_data_access_enabled = 1 THEN N',dac' ELSE N'' END, 1, 1, N'')
    END AS RSRVSTATUS,
    name AS RSRVNAME,
    data_source AS RSRVNETNM,
    CASE WHEN server_id = 0 THEN 0 WHEN is_linked = 1 THEN 1 ELSE 2 END AS RSRVCONNLV
FROM sys.servers
ORDER BY server_id;
