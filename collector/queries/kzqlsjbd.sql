-- kzqlsjbd: log shipping job sessions. One row per session of a log shipping job on this
-- server: its newest history record (TOP (@max_rows), newest first).
-- Reads: msdb.dbo.log_shipping_monitor_history_detail, msdb.dbo.log_shipping_primary_databases,
--        msdb.dbo.log_shipping_secondary, msdb.dbo.sysjobs.
-- Needs: SELECT on those msdb tables.
-- AGTTYPE: 0 backup, 1 copy, 2 restore. JOBSTATUS: 1 succeeded, 0 failed; no value while
-- the session starts or runs, or when it ended with a warning. LOGTIME is local time.
-- JOBNAME: the Agent job of the backup (primary) or of the copy / restore (secondary).
WITH sessions AS (
    SELECT h.agent_id, h.agent_type, h.session_id, h.database_name, h.session_status,
           h.log_time, h.message,
           ROW_NUMBER() OVER (PARTITION BY h.agent_id, h.agent_type, h.session_id
                              ORDER BY h.log_time DESC) AS newest
    FROM msdb.dbo.log_shipping_monitor_history_detail AS h
)
SELECT TOP (@max_rows)
    s.agent_type AS AGTTYPE,
    DB_ID(s.database_name) AS DBID,
    s.database_name AS DBNAME,
    s.session_id AS SESSID,
    CASE s.session_status WHEN 2 THEN 1 WHEN 3 THEN 0 END AS JOBSTATUS,
    s.message AS ERRMSG,
    s.log_time AS LOGTIME,
    j.name AS JOBNAME
FROM sessions AS s
LEFT JOIN msdb.dbo.log_shipping_primary_databases AS p
       ON s.agent_type = 0 AND p.primary_id = s.agent_id
LEFT JOIN msdb.dbo.log_shipping_secondary AS sec
       ON s.agent_type IN (1, 2) AND sec.secondary_id = s.agent_id
LEFT JOIN msdb.dbo.sysjobs AS j
       ON j.job_id = CASE s.agent_type WHEN 0 THEN p.backup_job_id
                                       WHEN 1 THEN sec.copy_job_id
                                       ELSE sec.restore_job_id END
WHERE s.newest = 1
ORDER BY s.log_time DESC;
