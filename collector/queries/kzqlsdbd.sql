-- kzqlsdbd: log shipping databases. One row per primary database this server ships and per
-- secondary database it restores (TOP (@max_rows) by name).
-- Reads: msdb.dbo.log_shipping_monitor_primary, msdb.dbo.log_shipping_monitor_secondary,
--        msdb.dbo.log_shipping_primary_databases, msdb.dbo.log_shipping_secondary,
--        msdb.dbo.log_shipping_monitor_error_detail, msdb.dbo.sysjobs.
-- Needs: SELECT on those msdb tables.
-- SRVTYPELS: 0 primary, 1 secondary. THRESHOLD: minutes allowed between log backups
-- (primary) or restores (secondary); THRESEXCD: 1 when the newest one is older than that.
-- LSTFILE, LSTFILTM: the newest log backup file (primary) or restored file (secondary)
-- and when. ERRMSG: the newest error the database's agents logged. LSSOURCE: the Agent job
-- of the backup (primary) or of the restore (secondary).
WITH shipped AS (
    SELECT 0 AS server_type, m.primary_database AS database_name, m.primary_id AS agent_id,
           m.backup_threshold AS threshold, m.last_backup_file AS last_file,
           m.last_backup_date AS last_time, p.backup_job_id AS job_id
    FROM msdb.dbo.log_shipping_monitor_primary AS m
    LEFT JOIN msdb.dbo.log_shipping_primary_databases AS p ON p.primary_id = m.primary_id
    UNION ALL
    SELECT 1, m.secondary_database, m.secondary_id, m.restore_threshold,
           m.last_restored_file, m.last_restored_date, s.restore_job_id
    FROM msdb.dbo.log_shipping_monitor_secondary AS m
    LEFT JOIN msdb.dbo.log_shipping_secondary AS s ON s.secondary_id = m.secondary_id
)
SELECT TOP (@max_rows)
    x.server_type AS SRVTYPELS,
    x.database_name AS UDBNAME,
    DB_ID(x.database_name) AS DBID,
    x.threshold AS THRESHOLD,
    CASE WHEN x.last_time IS NULL OR DATEDIFF(minute, x.last_time, GETDATE()) > x.threshold
         THEN 1 ELSE 0 END AS THRESEXCD,
    x.last_file AS LSTFILE,
    x.last_time AS LSTFILTM,
    err.message AS ERRMSG,
    j.name AS LSSOURCE
FROM shipped AS x
LEFT JOIN msdb.dbo.sysjobs AS j ON j.job_id = x.job_id
OUTER APPLY (
    SELECT TOP (1) e.message
    FROM msdb.dbo.log_shipping_monitor_error_detail AS e
    WHERE e.agent_id = x.agent_id
    ORDER BY e.log_time DESC, e.sequence_number
) AS err
ORDER BY x.database_name, x.server_type;
