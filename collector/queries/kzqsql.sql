-- kzqsql: SQL text. With @spid set: one row, the text that session runs now or ran last.
-- Without: one row per running user request but this one (TOP (@max_rows) by CPU time).
-- Reads: sys.dm_exec_sessions, sys.dm_exec_requests, sys.dm_exec_connections,
--        sys.dm_exec_sql_text.
-- Needs: VIEW SERVER STATE.
-- SQLTEXT and USQLTEXT hold the whole batch (cut to the field by the packer); CPU in ms
-- (the request's while it runs, else the session's).
SELECT TOP (@max_rows)
    CAST(SERVERPROPERTY('MachineName') AS nvarchar(64)) AS HOSTNAME,
    DB_NAME(COALESCE(r.database_id, s.database_id)) AS DBNAME,
    s.host_name AS CLNTHOST,
    CAST(s.host_process_id AS nvarchar(16)) AS CLNTPID,
    s.session_id AS PID,
    COALESCE(r.cpu_time, s.cpu_time) AS CPU,
    COALESCE(r.status, s.status) AS STATUS,
    t.text AS SQLTEXT,
    DB_NAME(COALESCE(r.database_id, s.database_id)) AS UDBNAME,
    t.text AS USQLTEXT
FROM sys.dm_exec_sessions AS s
LEFT JOIN sys.dm_exec_requests AS r ON r.session_id = s.session_id
LEFT JOIN sys.dm_exec_connections AS c
       ON c.session_id = s.session_id AND c.parent_connection_id IS NULL
OUTER APPLY sys.dm_exec_sql_text(COALESCE(r.sql_handle, c.most_recent_sql_handle)) AS t
WHERE (@spid IS NOT NULL AND s.session_id = @spid)
   OR (@spid IS NULL AND r.session_id IS NOT NULL AND s.is_user_process = 1
       AND s.session_id <> @@SPID)
ORDER BY COALESCE(r.cpu_time, s.cpu_time) DESC;
